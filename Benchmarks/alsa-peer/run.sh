#!/bin/bash
# Builds the peer benchmark, boots the ALSA VM of Tests/alsa-vm with it and prints its table.
#
#   Benchmarks/alsa-peer/run.sh                 3 rounds on 1 CPU
#   Benchmarks/alsa-peer/run.sh --smp 2         on 2 CPUs
#   Benchmarks/alsa-peer/run.sh --rounds 5 --filter 'latency|send'
#   Benchmarks/alsa-peer/run.sh --quick         the few seconds that CI's smoke job runs
# Counts: PEER_RECEIVE_COUNT, PEER_LATENCY_COUNT, PEER_SEND_COUNT (any PEER_* variable is passed on).
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
smp=1 rounds=3 filter="" job=peer-benchmark
while [ $# -gt 0 ]; do
    case "$1" in
        --smp) smp=$2; shift 2 ;;
        --rounds) rounds=$2; shift 2 ;;
        --filter) filter=$2; shift 2 ;;
        --quick) job=peer-smoke; shift ;;
        *) echo "usage: $0 [--smp N] [--rounds N] [--filter REGEX] [--quick]" >&2; exit 2 ;;
    esac
done
env="PEER_ROUNDS=$rounds"
for name in $(compgen -e | grep '^PEER_' | grep -v '^PEER_ROUNDS$\|^PEER_FILTER$' || true); do
    [ -z "${!name:-}" ] || env+=" $name=${!name}"
done
[ -z "$filter" ] || env+=" PEER_FILTER=$filter"
# The other builds on a shared machine starve the emulator less at a higher priority.
export WORK=${WORK:-$ROOT/build-alsa-peer} VM_JOB=$job VM_SMP=$smp VM_JOB_ENV=$env VM_NICE=${VM_NICE:--10}
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
rc=0
"$ROOT/Tests/alsa-vm/run-vm-suite.sh" || rc=$?
echo
echo "commit $(git -C "$ROOT" rev-parse --short HEAD)$(git -C "$ROOT" diff --quiet HEAD -- Source || echo ' (Source changed)'), -smp $smp, host load before $load_before, after $(cut -d' ' -f1-3 /proc/loadavg)"
sed -n '/^PEER TABLE/,/^Velmor consumer:/p' "$WORK/console.log"
exit $rc
