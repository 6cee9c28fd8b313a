#!/bin/bash
# The ALSA sequencer VM: builds the programs that the chosen jobs (jobs/<name>.sh) need, packs them with
# Debian's kernel, the sound and USB gadget modules and busybox into an initramfs, boots it in qemu (no
# KVM needed), runs the jobs in it and checks a result line per job. Exit status 0 when every job
# passed; a clear SKIP line and status 0 where qemu cannot be installed.
#
#   Tests/alsa-vm/run-vm-suite.sh           install what is missing, build, boot (the suite job)
#   Tests/alsa-vm/run-vm-suite.sh boot      boot the last build again
#   VM_JOB=name[,name...]                   the jobs to run, in this order, in one boot (default: suite)
#   VM_JOB_ENV="NAME=value ..."             variables for the jobs (no spaces inside a value)
#   VM_SMP=n, VM_MEM=MB                     CPUs (default 1) and memory (default 512) of the VM
#   VM_NICE=n                               qemu's nice value (benchmarks: -10 keeps builds from starving it)
#   WORK=dir, VM_ACCEL=kvm                  where to build (default build-alsa-vm/), qemu's accelerator
#   VM_SANITIZE=address|thread              the programs under AddressSanitizer+UBSan or TSan
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
VM_SANITIZE=${VM_SANITIZE:-}
WORK=${WORK:-$ROOT/build-alsa-vm${VM_SANITIZE:+-$VM_SANITIZE}}
KROOT=${KROOT:-$ROOT/build-alsa-vm/kernel}  # the unpacked kernel package, shared by all builds
VM_JOB=${VM_JOB:-suite}
VM_JOB_ENV=${VM_JOB_ENV:-}
VM_SMP=${VM_SMP:-1}
VM_MEM=${VM_MEM:-512}
MODULES="snd-seq-dummy snd-hrtimer configfs dummy_hcd usb_f_midi snd-usb-audio snd-seq-midi"
mkdir -p "$WORK"
t() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(t)" 'BEGIN{printf "%.1f", b-a}'; }
log() { echo "[alsa-vm] $*" >&2; }
T0=$(t)

JOBS=$(echo "$VM_JOB" | tr ',' ' ')
# A job script says what it needs in comment lines: "# vm-<key>: value ...".
job_field() { sed -n "s/^# vm-$2: *//p" "$HERE/jobs/$1.sh" | tr '\n' ' '; }
JOB_PROGRAMS="" JOB_HOST_PROGRAMS="" JOB_PACKAGES="" JOB_CMAKE="" JOB_SECONDS=0
for job in $JOBS; do
    [ -f "$HERE/jobs/$job.sh" ] || { log "FAIL: no job '$job' (known: $(cd "$HERE/jobs" && ls *.sh | sed 's/\.sh$//' | tr '\n' ' '))"; exit 2; }
    JOB_PROGRAMS+=" $(job_field "$job" programs)"
    JOB_HOST_PROGRAMS+=" $(job_field "$job" host-programs)"
    JOB_PACKAGES+=" $(job_field "$job" packages)"
    JOB_CMAKE+=" $(job_field "$job" cmake)"
    limit=$(job_field "$job" timeout | awk '{print $1+0}')
    [ "${limit:-0}" -gt 0 ] || limit=240
    JOB_SECONDS=$((JOB_SECONDS + limit))
done
JOB_PROGRAMS=$(printf '%s\n' $JOB_PROGRAMS | sort -u | tr '\n' ' ')
JOB_HOST_PROGRAMS=$(printf '%s\n' $JOB_HOST_PROGRAMS | sort -u | tr '\n' ' ')
BOOT_TIMEOUT=${BOOT_TIMEOUT:-$((JOB_SECONDS + 180))}  # seconds for the whole VM run

install_packages() {
    local missing=()
    command -v qemu-system-x86_64 >/dev/null || missing+=(qemu-system-x86)
    dpkg -s busybox-static >/dev/null 2>&1 || missing+=(busybox-static)
    [ -e /usr/include/alsa/asoundlib.h ] || missing+=(libasound2-dev)
    command -v aseqdump >/dev/null || missing+=(alsa-utils)
    command -v cpio >/dev/null || missing+=(cpio)
    command -v depmod >/dev/null || missing+=(kmod)
    command -v xz >/dev/null || missing+=(xz-utils)
    command -v pkg-config >/dev/null || missing+=(pkg-config)
    local p
    for p in $JOB_PACKAGES; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
    if [ ${#missing[@]} -gt 0 ]; then
        log "installing: ${missing[*]}"
        export DEBIAN_FRONTEND=noninteractive
        timeout 900 apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2 ||
            { timeout 300 apt-get update -qq >&2 && timeout 900 apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2; } || true
    fi
    if ! command -v qemu-system-x86_64 >/dev/null; then
        echo "SKIP: ALSA VM suite: qemu-system-x86_64 could not be installed"
        exit 0
    fi
}

get_kernel() {
    # Debian's kernel package, downloaded and unpacked, not installed (that would pull in udev and
    # upgrade systemd). Only the kernel image and the sound, USB and configfs modules are kept.
    if ! ls "$KROOT"/boot/vmlinuz-* >/dev/null 2>&1; then
        mkdir -p "$WORK/debs" "$KROOT"
        local pkg deb
        pkg=$(apt-cache depends linux-image-amd64 | awk '/Depends: linux-image-/{print $2; exit}')
        [ -n "$pkg" ] || { log "FAIL: no linux-image package known to apt"; exit 1; }
        log "downloading $pkg"
        (cd "$WORK/debs" && timeout 600 apt-get download "$pkg" >&2)
        deb=$(ls "$WORK"/debs/"$pkg"_*.deb | head -1)
        timeout 120 dpkg-deb --fsys-tarfile "$deb" | tar -t |
            grep -E '^\./(usr/)?(boot/vmlinuz-|lib/modules/[^/]+/(kernel/(sound|fs/configfs|drivers/media/mc|drivers/usb/(common|core|gadget))/$|modules\.(order|builtin|builtin\.modinfo)$))' \
            > "$WORK/kernel-files.txt"
        timeout 120 dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$KROOT" -T "$WORK/kernel-files.txt"
        rm -f "$deb"
    fi
    VMLINUZ=$(ls "$KROOT"/boot/vmlinuz-* | sort -V | tail -1)
    KVER=${VMLINUZ##*/vmlinuz-}
    MROOT=$KROOT
    [ -d "$KROOT/lib/modules/$KVER" ] || MROOT=$KROOT/usr
    [ -f "$MROOT/lib/modules/$KVER/modules.dep" ] || timeout 120 depmod -b "$MROOT" "$KVER"
}

extract_vmlinux() {
    # bzImage -> ELF vmlinux: qemu boots it through the PVH entry and skips the slow self-decompression.
    local in=$1 out=$2 magic cmd off
    rm -f "$out"
    for mc in '\xfd\x37\x7a\x58\x5a\x00|xz -dc --single-stream' '\x28\xb5\x2f\xfd|zstd -dcq' '\x1f\x8b\x08|gzip -dc'; do
        magic=${mc%%|*}; cmd=${mc#*|}
        for off in $(LC_ALL=C grep -aboP "$magic" "$in" | cut -d: -f1 | head -3); do
            tail -c +$((off + 1)) "$in" | $cmd > "$out" 2>/dev/null || true
            if [ "$(head -c 4 "$out" | od -An -tx1 | tr -d ' ')" = 7f454c46 ]; then return 0; fi
        done
    done
    rm -f "$out"; return 1
}

build() {
    local t0; t0=$(t)
    local flags=()
    case "$VM_SANITIZE" in
        address) flags=(-DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-sanitize-recover=all"
                        -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined) ;;
        thread) flags=(-DCMAKE_CXX_FLAGS=-fsanitize=thread -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread) ;;
        "") ;;
        *) log "FAIL: VM_SANITIZE is address or thread"; exit 2 ;;
    esac
    # Jobs' own options come last and win (for example -DVELMOR_BUILD_TOOLS=ON).
    # shellcheck disable=SC2086
    timeout 900 cmake -S "$ROOT" -B "$WORK/cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVELMOR_BUILD_BENCHMARKS=OFF -DVELMOR_BUILD_TOOLS=OFF "${flags[@]}" $JOB_CMAKE >/dev/null
    local programs=() p found
    if [ -n "${JOB_PROGRAMS// /}" ]; then
        # shellcheck disable=SC2086
        timeout 900 cmake --build "$WORK/cmake" -j2 --target $JOB_PROGRAMS >&2
        for p in $JOB_PROGRAMS; do
            found=$(find "$WORK/cmake" -type f -name "$p" -perm -u+x -not -path '*/CMakeFiles/*' | head -1)
            [ -n "$found" ] || { log "FAIL: program $p not built"; exit 1; }
            programs+=("$found")
        done
    fi
    for p in $JOB_HOST_PROGRAMS; do
        found=$(command -v "$p") || { log "FAIL: host program $p not found"; exit 1; }
        programs+=("$found")
    done
    log "programs built in $(elapsed "$t0") s: ${JOB_PROGRAMS}, from the host: ${JOB_HOST_PROGRAMS}"

    local R="$WORK/root"
    rm -rf "$R"
    mkdir -p "$R"/{bin,dev,proc,sys,tmp,etc,usr/share/alsa,lib/modules/"$KVER"}
    ln -s bin "$R/sbin"; ln -s ../bin "$R/usr/bin"
    cp /bin/busybox "$R/bin/busybox"
    for a in $(/bin/busybox --list); do [ -e "$R/bin/$a" ] || ln -s busybox "$R/bin/$a"; done
    for p in "${programs[@]}"; do
        rm -f "$R/bin/${p##*/}"  # a busybox link of that name: cp would write through it
        cp "$p" "$R/bin/"
    done
    if [ -z "$VM_SANITIZE" ] && [ -z "${VM_NOSTRIP:-}" ]; then
        for p in $JOB_PROGRAMS; do strip "$R/bin/$p" 2>/dev/null || true; done
    fi
    mkdir -p "$R/jobs"
    cp "$HERE"/jobs/* "$R/jobs/"
    [ ${#programs[@]} -eq 0 ] ||
    for f in $(ldd "${programs[@]}" |
               awk '$2 == "=>" && $3 ~ /^\// {print $3} $1 ~ /^\/.*ld-linux/ {print $1}' | sort -u); do
        mkdir -p "$R$(dirname "$f")"
        cp -L "$f" "$R$f"
    done
    cp /usr/share/alsa/alsa.conf "$R/usr/share/alsa/"
    local mods
    mods=$(for m in $MODULES; do modprobe -d "$MROOT" -S "$KVER" --show-depends "$m"; done |
           awk '/^insmod/{print $2}' | sort -u)
    for f in $mods; do
        local rel=${f#"$MROOT"/lib/modules/"$KVER"/}
        mkdir -p "$R/lib/modules/$KVER/$(dirname "$rel")"
        case "$f" in
            *.ko.xz) xz -dc "$f" > "$R/lib/modules/$KVER/${rel%.xz}" ;;
            *.ko.zst) zstd -qdc "$f" > "$R/lib/modules/$KVER/${rel%.zst}" ;;
            *) cp "$f" "$R/lib/modules/$KVER/$rel" ;;
        esac
    done
    cp "$MROOT/lib/modules/$KVER"/modules.{order,builtin,builtin.modinfo} "$R/lib/modules/$KVER/" 2>/dev/null || true
    timeout 60 depmod -b "$R" "$KVER"
    install -m 755 "$HERE/init.sh" "$R/init"
    (cd "$R" && find . | LC_ALL=C sort | timeout 120 cpio -o -H newc --owner 0:0 --quiet) | gzip -6 > "$WORK/initramfs.cpio.gz"
    if extract_vmlinux "$VMLINUZ" "$WORK/vmlinux"; then
        ln -sf vmlinux "$WORK/kernel.img"
    else
        cp "$VMLINUZ" "$WORK/vmlinuz"; ln -sf vmlinuz "$WORK/kernel.img"
    fi
    log "kernel $KVER, initramfs $(du -h "$WORK/initramfs.cpio.gz" | cut -f1), build took $(elapsed "$t0") s"
}

boot() {
    # Software emulation by default: KVM inside a virtual machine (as on CI runners) can hang at boot.
    local accel=${VM_ACCEL:-tcg} t0 rc=0
    t0=$(t)
    local append="console=ttyS0 quiet panic=-1 velmor_jobs=$(echo $JOBS | tr ' ' ',')" kv
    for kv in $VM_JOB_ENV; do append+=" velmor_env=$kv"; done
    log "booting ($accel, $VM_SMP CPU, jobs: $JOBS; host load $(cut -d' ' -f1-3 /proc/loadavg)), console log: $WORK/console.log"
    timeout --kill-after=10 "$BOOT_TIMEOUT" nice -n "${VM_NICE:-0}" qemu-system-x86_64 \
        -accel "$accel" -m "$VM_MEM" -smp "$VM_SMP" -nic none \
        -kernel "$WORK/kernel.img" -initrd "$WORK/initramfs.cpio.gz" \
        -append "$append" \
        -nographic -no-reboot </dev/null | tr -d '\r' | tee "$WORK/console.log" || rc=$?
    log "qemu status $rc, VM wall time $(elapsed "$t0") s, total $(elapsed "$T0") s, host load $(cut -d' ' -f1-3 /proc/loadavg)"
    local job failed=()
    for job in $JOBS; do
        if grep -aq "^VELMOR-VM-JOB: $job PASS" "$WORK/console.log"; then log "PASS: job $job"
        else
            failed+=("$job")
            log "FAIL: job $job: $(grep -a "^VELMOR-VM-JOB: $job \|^FAIL" "$WORK/console.log" | tr '\n' ' ' || true)"
        fi
    done
    [ ${#failed[@]} -eq 0 ] && { log PASS; return 0; }
    grep -aq '^VELMOR-VM-SUITE:' "$WORK/console.log" || log "no result line (VM crashed or timed out)"
    log "FAIL: ${failed[*]}"
    return 1
}

install_packages
get_kernel
[ "${1:-}" = boot ] || build
boot
