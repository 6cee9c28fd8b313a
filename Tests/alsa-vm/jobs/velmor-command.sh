#!/bin/sh
# The velmor command against programs no one here wrote: aseqdump, amidi, aconnect; USB hot-plug.
# vm-programs: velmor-command
# vm-host-programs: aseqdump aconnect amidi
# vm-packages: libcli11-dev nlohmann-json3-dev
# vm-cmake: -DVELMOR_BUILD_TOOLS=ON
# vm-timeout: 120
V=velmor-command
failed=0
pass() { echo "PASS: velmor: $*"; }
fail() { echo "FAIL: velmor: $*"; failed=1; }
# wait_for PATTERN FILE [TENTHS]: until the file has a line matching, or the time is up.
wait_for() {
    n=0
    while [ $n -lt "${3:-50}" ]; do
        grep -q "$1" "$2" 2>/dev/null && return 0
        usleep 100000; n=$((n + 1))
    done
    return 1
}
UDC=$VM_GADGET/UDC
plug() { echo dummy_udc.0 > "$UDC"; }
unplug() { echo "" > "$UDC"; }
[ -n "$(cat "$UDC" 2>/dev/null)" ] && { unplug; sleep 1; }

# --- Plug-in and out while monitor runs, with amidi writing on the device's side -------------------
$V monitor > monitor.txt 2> monitor.err & mon=$!
usleep 500000
plug
wait_for 'source added: "VM USB MIDI' monitor.txt && pass "monitor shows the device plugged in" \
    || fail "monitor shows no plug-in: $(cat monitor.txt monitor.err)"
card=""
n=0
while [ -z "$card" ] && [ $n -lt 30 ]; do
    card=$(sed -n 's/^ *\([0-9]*\) \[GadgetSide.*/\1/p' /proc/asound/cards); usleep 100000; n=$((n + 1))
done
usleep 300000
amidi -p "hw:$card,0" -S '90 3C 64 B0 07 64 E0 00 40 80 3C 00'
wait_for 'VM USB MIDI .*note off' monitor.txt && pass "monitor shows what amidi sends" \
    || fail "monitor misses amidi's bytes: $(cat monitor.txt)"
unplug
wait_for 'source removed: "VM USB MIDI' monitor.txt && pass "monitor shows the device unplugged" \
    || fail "monitor shows no unplug: $(cat monitor.txt)"
plug
n=0
while [ "$(grep -c 'source added: "VM USB MIDI' monitor.txt)" -lt 2 ] && [ $n -lt 50 ]; do usleep 100000; n=$((n + 1)); done
usleep 500000
card=$(sed -n 's/^ *\([0-9]*\) \[GadgetSide.*/\1/p' /proc/asound/cards)
amidi -p "hw:$card,0" -S '90 3E 50'
wait_for 'VM USB MIDI .*D5 (62)' monitor.txt && pass "a device that comes back is watched again" \
    || fail "nothing from the device after it came back: $(cat monitor.txt)"
kill -INT $mon; wait $mon; rc=$?
[ $rc = 0 ] && pass "monitor ends with status 0 on SIGINT" || fail "monitor ended with status $rc"
echo "--- velmor monitor, all of it"; cat monitor.txt

# --- list agrees with aconnect ---------------------------------------------------------------------
$V list > list.txt 2>&1
$V list --json > list.json 2>&1
echo "--- velmor list"; cat list.txt
echo "--- aconnect -l"; aconnect -l
# Every readable port of aconnect -i (client 0, System, is the sequencer's own) is a source of that
# address and name, and every writable one of -o an output; and no more.
for dir in i o; do
    kind=source; [ $dir = o ] && kind=output
    aconnect -$dir | awk '/^client/ {c = $2; sub(":", "", c); next}
                           {p = $1; $1 = ""; sub(/^ /, ""); gsub(/'"'"'/, ""); sub(/ *$/, ""); print c ":" p "\t" $0}' \
        | grep -v '^0:' > ports.$dir
    want=$(wc -l < ports.$dir)
    have=$(grep -c "\"kind\":\"$kind\"" list.json)
    [ "$want" = "$have" ] && pass "$have ${kind}s in list, as aconnect -$dir has" \
        || fail "list has $have ${kind}s, aconnect -$dir $want"
    while IFS="$(printf '\t')" read -r address name; do
        grep "\"address\":\"$address\"" list.json | grep "\"kind\":\"$kind\"" | grep -q "\"VelmorEventSourceName\":\"$name\"" \
            || fail "aconnect's $kind $address '$name' is not in velmor list"
        grep -q "  $kind  $address  \"$name\"" list.txt || fail "$kind $address '$name' not in the text list"
    done < ports.$dir
done

# --- send: aseqdump shows it -------------------------------------------------------------------------
usb=$(sed -n 's/.*"address":"\([0-9]*:[0-9]*\)".*"VelmorEventSourceName":"VM USB MIDI[^"]*".*"kind":"source".*/\1/p' list.json | head -1)
aseqdump -p 14:0 > dump.txt 2>&1 & dump=$!
usleep 500000
$V send "Midi Through Port-0" --channel 3 on C5 100 cc 7 100 pb 8192 at 60 40 pc 5 pressure 30 off 60 syx 7E 7F 06 01 \
    || fail "send exited with $?"
usleep 500000
kill $dump; wait $dump 2>/dev/null
echo "--- aseqdump -p 14:0 of velmor send"; cat dump.txt
for line in 'Note on.* 2, note 60, velocity 100' 'Control change.* 2, controller 7, value 100' 'Pitch bend.* 2, value 0' \
            'Polyphonic aftertouch.* 2, note 60, value 40' 'Program change.* 2, program 5' 'Channel aftertouch.* 2, value 30' \
            'Note off.* 2, note 60' 'System exclusive.*F0 7E 7F 06 01 F7'; do
    grep -q "$line" dump.txt || fail "aseqdump did not show: $line"
done
grep -q 'Note off' dump.txt && pass "aseqdump shows what velmor send sent"
$V send 14:0 on 60 200 > bad.out 2> bad.err; rc=$?
[ $rc = 2 ] && [ "$(wc -l < bad.err)" = 1 ] && pass "a bad velocity is one line and status 2: $(cat bad.err)" \
    || fail "bad velocity: status $rc, $(cat bad.err)"

# --- The same phrase from the device, as aseqdump and velmor monitor show it ---------------------------
if [ -n "$usb" ]; then
    aseqdump -p "$usb" > phrase.dump 2>&1 & dump=$!
    $V monitor "$usb" > phrase.monitor 2>&1 & mon=$!
    usleep 800000
    amidi -p "hw:$card,0" -S '90 3C 64 90 40 5A B0 40 7F 90 43 50 E0 00 50 80 3C 00 80 40 00 80 43 00 B0 40 00 F0 7E 7F 06 01 F7'
    usleep 800000
    kill $dump; kill -INT $mon; wait 2>/dev/null
    echo "--- aseqdump -p $usb of a phrase from the device"; cat phrase.dump
    echo "--- velmor monitor $usb of the same phrase"; cat phrase.monitor
    [ "$(grep -c 'VM USB MIDI' phrase.monitor)" -ge 10 ] && pass "monitor shows the whole phrase" \
        || fail "monitor shows part of the phrase"
fi
exit $failed
