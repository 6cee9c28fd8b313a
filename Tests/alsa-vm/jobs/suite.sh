#!/bin/sh
# The ALSA sequencer suite: the service end to end, USB plug-in and unplug through the gadget.
# vm-programs: velmor_alsa_vm_tests
# vm-host-programs: aconnect aseqdump
# vm-timeout: 240
velmor_alsa_vm_tests "$VM_GADGET" > /tmp/suite.out 2>&1
rc=$?
cat /tmp/suite.out
[ $rc = 0 ] && grep -q '^VELMOR-VM-RESULT: PASS' /tmp/suite.out
