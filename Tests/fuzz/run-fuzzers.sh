#!/usr/bin/env bash
# Builds the libFuzzer targets (the fuzz preset: clang, ASan+UBSan) and runs each for SECONDS (default
# 600), one after the other, from the seeds in Tests/fuzz/corpus/<target>. New inputs go to
# build/fuzz/corpus/<target>, anything that fails to build/fuzz/crashes/. Status 0 when no target found
# anything; each target's executions are printed.
#   Tests/fuzz/run-fuzzers.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-600}
shift || true
targets=("$@")
cmake --preset fuzz >/dev/null
if [ ${#targets[@]} -eq 0 ]; then
  targets=(PacketFuzzer AttributesFuzzer ReceiveFuzzer)
  # Built where libasound is found.
  if [[ " $(cmake --build --preset fuzz --target help) " == *" ALSAEventFuzzer"* ]]; then
    targets+=(ALSAEventFuzzer)
  fi
fi
cmake --build --preset fuzz -j2 --target "${targets[@]}"

status=0
mkdir -p build/fuzz/crashes
for target in "${targets[@]}"; do
  work=build/fuzz/corpus/$target
  log=build/fuzz/$target.log
  mkdir -p "$work"
  seeds=Tests/fuzz/corpus/$target
  [ -d "$seeds" ] || seeds=
  if build/fuzz/Tests/fuzz/$target -max_total_time="$seconds" -max_len=2048 -timeout=20 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="build/fuzz/crashes/$target-" "$work" $seeds >"$log" 2>&1; then
    result=ok
  else
    result=FAILED
    status=1
    tail -60 "$log"
  fi
  runs=$(grep -o 'number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
  echo "$target: $result, $runs executions in ${seconds} s"
done
exit $status
