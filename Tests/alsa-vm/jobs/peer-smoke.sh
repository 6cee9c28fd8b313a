#!/bin/sh
# A few seconds of the peer benchmark (Benchmarks/alsa-peer): every contender receives, sends and takes
# an exclusive message. Its figures are no gate: the job fails only when the program does.
# vm-programs: velmor_alsa_peer_benchmark
# vm-packages: librtmidi-dev libbenchmark-dev
# vm-cmake: -DVELMOR_BUILD_BENCHMARKS=ON
# vm-timeout: 120
PEER_ROUNDS=1 PEER_RECEIVE_COUNT=500 PEER_LATENCY_COUNT=100 PEER_SEND_COUNT=1000 \
    velmor_alsa_peer_benchmark --benchmark_color=false > /tmp/peer-smoke.out 2>&1
rc=$?
cat /tmp/peer-smoke.out
[ $rc = 0 ] && grep -q '^PEER TABLE' /tmp/peer-smoke.out
