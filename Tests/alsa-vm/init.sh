#!/bin/sh
# /init of the VM (busybox ash): loads the sequencer and the USB MIDI gadget on dummy_hcd, prepares the
# gadget without plugging it in, runs the test program, prints its result line and powers off.
export PATH=/bin:/sbin:/usr/bin HOME=/tmp
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp
exec 0</dev/console 1>/dev/console 2>&1
echo "=== VM userspace up at $(cut -d' ' -f1 /proc/uptime)s, kernel $(uname -r)"

fails=""
for m in snd-seq-dummy snd-hrtimer snd-usb-audio snd-seq-midi dummy_hcd usb_f_midi; do
    timeout 30 modprobe $m || fails="$fails modprobe-$m"
done
mount -t configfs configfs /sys/kernel/config
G=/sys/kernel/config/usb_gadget/midi
mkdir -p $G/strings/0x409 $G/configs/c.1/strings/0x409 $G/functions/midi.0
echo 0x1d6b > $G/idVendor; echo 0x0104 > $G/idProduct
echo "velmor-vm" > $G/strings/0x409/manufacturer
echo "VM USB MIDI" > $G/strings/0x409/product
echo "0001" > $G/strings/0x409/serialnumber
echo "midi" > $G/configs/c.1/strings/0x409/configuration
echo GadgetSide > $G/functions/midi.0/id
ln -s $G/functions/midi.0 $G/configs/c.1/
cat /proc/asound/seq/clients

echo "=== velmor_alsa_vm_tests at $(cut -d' ' -f1 /proc/uptime)s"
timeout ${VELMOR_VM_TEST_TIMEOUT:-240} velmor_alsa_vm_tests $G > /tmp/tests.log 2>&1
rc=$?
cat /tmp/tests.log
echo "=== tests done at $(cut -d' ' -f1 /proc/uptime)s, status $rc"
if [ -n "$fails" ]; then echo "VELMOR-VM-SUITE: FAIL ($fails)"
elif [ $rc = 0 ] && grep -q '^VELMOR-VM-RESULT: PASS' /tmp/tests.log; then echo "VELMOR-VM-SUITE: PASS"
else echo "VELMOR-VM-SUITE: FAIL (test program status $rc)"; fi
sleep 0.2
poweroff -f
