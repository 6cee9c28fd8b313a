#!/bin/bash
# The ALSA sequencer suite: builds Velmor's VM test program, packs it with Debian's kernel, the sound and
# USB gadget modules and busybox into an initramfs, boots it in qemu (no KVM needed) and checks the
# result line. Exit status 0 on success; a clear SKIP line and status 0 where qemu cannot be installed.
#
#   Tests/alsa-vm/run-vm-suite.sh           install what is missing, build, boot
#   Tests/alsa-vm/run-vm-suite.sh boot      boot the last build again
#   WORK=dir, VM_ACCEL=kvm                  where to build (default build-alsa-vm/), qemu's accelerator
#   VM_SANITIZE=address|thread              the test program under AddressSanitizer+UBSan or TSan
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
ROOT=$(cd "$HERE/../.." && pwd)
VM_SANITIZE=${VM_SANITIZE:-}
WORK=${WORK:-$ROOT/build-alsa-vm${VM_SANITIZE:+-$VM_SANITIZE}}
KROOT=${KROOT:-$ROOT/build-alsa-vm/kernel}  # the unpacked kernel package, shared by all builds
BOOT_TIMEOUT=${BOOT_TIMEOUT:-420}  # seconds for the whole VM run
MODULES="snd-seq-dummy snd-hrtimer configfs dummy_hcd usb_f_midi snd-usb-audio snd-seq-midi"
mkdir -p "$WORK"
t() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(t)" 'BEGIN{printf "%.1f", b-a}'; }
log() { echo "[alsa-vm] $*" >&2; }
T0=$(t)

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
    timeout 900 cmake -S "$ROOT" -B "$WORK/cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVELMOR_BUILD_BENCHMARKS=OFF -DVELMOR_BUILD_TOOLS=OFF "${flags[@]}" >/dev/null
    timeout 900 cmake --build "$WORK/cmake" -j2 --target velmor_alsa_vm_tests >&2
    local program=$WORK/cmake/Tests/alsa-vm/velmor_alsa_vm_tests
    [ -x "$program" ] || { log "FAIL: test program not built"; exit 1; }
    log "program built in $(elapsed "$t0") s"

    local R="$WORK/root"
    rm -rf "$R"
    mkdir -p "$R"/{bin,dev,proc,sys,tmp,etc,usr/share/alsa,lib/modules/"$KVER"}
    ln -s bin "$R/sbin"; ln -s ../bin "$R/usr/bin"
    cp /bin/busybox "$R/bin/busybox"
    for a in $(/bin/busybox --list); do [ -e "$R/bin/$a" ] || ln -s busybox "$R/bin/$a"; done
    cp "$program" /usr/bin/aconnect /usr/bin/aseqdump "$R/bin/"
    [ -n "$VM_SANITIZE" ] || strip "$R/bin/velmor_alsa_vm_tests" 2>/dev/null || true
    for f in $(ldd "$program" /usr/bin/aconnect /usr/bin/aseqdump |
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
    log "booting ($accel), console log: $WORK/console.log"
    timeout --kill-after=10 "$BOOT_TIMEOUT" qemu-system-x86_64 \
        -accel "$accel" -m 512 -smp 1 -nic none \
        -kernel "$WORK/kernel.img" -initrd "$WORK/initramfs.cpio.gz" \
        -append "console=ttyS0 quiet panic=-1" \
        -nographic -no-reboot </dev/null | tr -d '\r' | tee "$WORK/console.log" || rc=$?
    log "qemu status $rc, VM wall time $(elapsed "$t0") s, suite total $(elapsed "$T0") s"
    if grep -aq '^VELMOR-VM-SUITE: PASS' "$WORK/console.log"; then log PASS; return 0; fi
    log "FAIL: $(grep -a '^VELMOR-VM-SUITE\|^FAIL' "$WORK/console.log" | tr '\n' ' ' || echo 'no result line (VM crashed or timed out)')"
    return 1
}

install_packages
get_kernel
[ "${1:-}" = boot ] || build
boot
