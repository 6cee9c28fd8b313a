#!/bin/sh
# Exit with the manager, a source, a consumer and outputs held in globals, while events flow: every
# order of static destruction the program can choose, 10 runs each, each exit status checked.
# vm-programs: velmor_globals_at_exit
# vm-timeout: 180
failed=0
for order in globals late exit; do
  run=1
  while [ $run -le 10 ]; do
    velmor_globals_at_exit alsa $order > /tmp/exit.out 2>&1
    status=$?
    if [ $status != 0 ]; then
      echo "FAIL: exit with $order, run $run: status $status"
      tail -20 /tmp/exit.out
      failed=$((failed + 1))
    fi
    run=$((run + 1))
  done
done
echo "exit with globals on ALSA: 30 runs, $failed failed"
[ $failed = 0 ]
