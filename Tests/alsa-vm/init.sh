#!/bin/sh
# /init of the VM (busybox ash): loads the sequencer and the USB MIDI gadget on dummy_hcd, prepares the
# gadget without plugging it in, runs the jobs named on the kernel command line (velmor_jobs=a,b; the
# suite by default) one after another, prints a result line per job and powers off.
export PATH=/bin:/sbin:/usr/bin HOME=/tmp
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs tmpfs /tmp
exec 0</dev/console 1>/dev/console 2>&1
echo "=== VM userspace up at $(cut -d' ' -f1 /proc/uptime)s, kernel $(uname -r), $(nproc) CPU"

jobs=suite
for word in $(cat /proc/cmdline); do
    case "$word" in
        velmor_jobs=*) jobs=${word#velmor_jobs=} ;;
        velmor_env=*=*)
            # Variables for the jobs; the name must be a plain shell name.
            kv=${word#velmor_env=}
            case "${kv%%=*}" in *[!A-Za-z0-9_]*|[0-9]*|"") echo "ignored: $word" ;; *) export "$kv" ;; esac ;;
    esac
done

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
export VM_GADGET=$G

all=PASS
for job in $(echo "$jobs" | tr ',' ' '); do
    script=/jobs/$job.sh
    if [ ! -f "$script" ]; then
        echo "VELMOR-VM-JOB: $job FAIL (no job script $script in the initramfs)"
        all=FAIL; continue
    fi
    limit=$(sed -n 's/^# vm-timeout: *\([0-9][0-9]*\).*/\1/p' "$script" | head -1)
    echo "=== job $job at $(cut -d' ' -f1 /proc/uptime)s (limit ${limit:-240} s)"
    export VM_JOB=$job
    # The job runs in a session of its own, so that its time limit ends every program it started.
    (cd /tmp && exec setsid sh "$script") 2>&1 & pid=$!
    (sleep "${limit:-240}"; echo "=== job $job over its limit of ${limit:-240} s"; kill -KILL -- -$pid) 2>/dev/null & watchdog=$!
    wait $pid; rc=$?
    kill $watchdog 2>/dev/null
    echo "=== job $job done at $(cut -d' ' -f1 /proc/uptime)s, status $rc"
    if [ -n "$fails" ]; then echo "VELMOR-VM-JOB: $job FAIL (setup:$fails)"; all=FAIL
    elif [ "$rc" = 0 ]; then echo "VELMOR-VM-JOB: $job PASS"
    else echo "VELMOR-VM-JOB: $job FAIL (status $rc)"; all=FAIL; fi
done
echo "VELMOR-VM-SUITE: $all"
sleep 0.2
poweroff -f
