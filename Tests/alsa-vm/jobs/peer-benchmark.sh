#!/bin/sh
# Velmor against RtMidi and plain libasound, side by side (Benchmarks/alsa-peer; run it with its run.sh).
# Figures, not a gate: the job fails only when the program does.
# vm-programs: velmor_alsa_peer_benchmark
# vm-packages: librtmidi-dev libbenchmark-dev
# vm-cmake: -DVELMOR_BUILD_BENCHMARKS=ON
# vm-timeout: 900
if [ -n "$PEER_FILTER" ]; then velmor_alsa_peer_benchmark --benchmark_color=false "--benchmark_filter=$PEER_FILTER"
else velmor_alsa_peer_benchmark --benchmark_color=false; fi
