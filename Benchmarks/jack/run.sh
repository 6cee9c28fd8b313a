#!/usr/bin/env bash
# Builds and runs the JACK peer benchmark against a jackd of its own (dummy driver, 48 kHz, 256 frames),
# natively on this machine. Extra arguments go to the benchmark (for example --benchmark_filter=paced).
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target JACKPeerBenchmarks
name="velmor-bench-$$"
bash Tests/jack/jackd-fixture.sh start "$name" build/default/Benchmarks/jackd
trap 'bash Tests/jack/jackd-fixture.sh stop "$name" build/default/Benchmarks/jackd' EXIT
JACK_DEFAULT_SERVER="$name" JACK_NO_START_SERVER=1 ./build/default/Benchmarks/JACKPeerBenchmarks "$@"
