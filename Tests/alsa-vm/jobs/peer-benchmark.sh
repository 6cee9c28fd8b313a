#!/bin/sh
# Velmor against RtMidi and plain libasound, side by side (Benchmarks/alsa-peer). Figures, not a gate:
# the job fails only when the program does.
# vm-programs: velmor_alsa_peer_benchmark
# vm-packages: librtmidi-dev libbenchmark-dev
# vm-cmake: -DVELMOR_BUILD_BENCHMARKS=ON
# vm-timeout: 900
velmor_alsa_peer_benchmark ${PEER_FILTER:+--benchmark_filter=$PEER_FILTER} 2>&1
