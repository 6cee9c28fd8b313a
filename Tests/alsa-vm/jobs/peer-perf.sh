#!/bin/sh
# A profile of the peer benchmark under perf (cpu-clock samples, then context switches), for
# PEER_FILTER's trials. Build with VM_NOSTRIP=1 to see the program's own symbols.
# vm-programs: velmor_alsa_peer_benchmark
# vm-host-programs: perf
# vm-packages: librtmidi-dev libbenchmark-dev
# vm-cmake: -DVELMOR_BUILD_BENCHMARKS=ON
# vm-timeout: 600
echo 0 > /proc/sys/kernel/kptr_restrict 2>/dev/null
echo -1 > /proc/sys/kernel/perf_event_paranoid 2>/dev/null
cd /tmp
perf record -e cpu-clock -F 5000 -g -o /tmp/perf.data velmor_alsa_peer_benchmark --benchmark_color=false "--benchmark_filter=$PEER_FILTER" > /tmp/out.txt 2>&1
grep "^send/\|^latency/\|^receive/" /tmp/out.txt
echo PERF-REPORT-BEGIN
perf report -i /tmp/perf.data --stdio --no-children --sort comm,pid -g none 2>/dev/null | grep -v "^#" | head -20
perf report -i /tmp/perf.data --stdio --no-children --sort pid,sym -g none --percent-limit 0.15 2>/dev/null | grep -v "^#" | head -200
echo SCHED
perf record -e sched:sched_switch -o /tmp/sched.data velmor_alsa_peer_benchmark --benchmark_color=false "--benchmark_filter=$PEER_FILTER" > /tmp/out2.txt 2>&1
grep "^send/\|^latency/\|^receive/" /tmp/out2.txt
perf report -i /tmp/sched.data --stdio --sort comm,pid -g none 2>/dev/null | grep -v "^#" | head -20
echo PERF-REPORT-END
