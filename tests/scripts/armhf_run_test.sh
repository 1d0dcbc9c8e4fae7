#!/usr/bin/env bash
# cmake/armhf-run: an ARM program goes through the emulator with the root as
# its prefix and its own argv[0]; anything else is run as it is, in the same
# process, with its status; what cannot start is status 127 with a reason.
set -uo pipefail
run=$1
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0
expect() { # NAME EXPECTED GOT
  if [ "$2" = "$3" ]; then echo "ok   $1"; else printf 'FAIL %s\n  expected: %s\n  got:      %s\n' "$1" "$2" "$3"; failures=$((failures + 1)); fi
}

# An emulator that shows how it was called.
cat >"$work/fake-qemu" <<'S'
#!/bin/sh
echo "qemu $*"
exit 7
S
chmod +x "$work/fake-qemu"
# ELF headers: 32-bit little-endian ARM (machine 40), 64-bit ARM (183) and
# 32-bit big-endian ARM, which is not the TV's.
elf() { # FILE CLASS DATA MACHINE_LO MACHINE_HI
  python3 -c 'import sys
a = [int(x) for x in sys.argv[2:]]
open(sys.argv[1], "wb").write(b"\x7fELF" + bytes([a[0], a[1], 1]) + bytes(9) + b"\x02\x00" + bytes(a[2:]) + bytes(64))' "$@"
  chmod +x "$1"
}
mkdir -p "$work/bin"
elf "$work/bin/armprog" 1 1 40 0
elf "$work/arm64prog" 2 1 183 0
elf "$work/armbe" 1 2 0 40

export LUMORA_ARM_QEMU="$work/fake-qemu" LUMORA_ARM_ROOT=/the/root
out="$("$run" "$work/bin/armprog" a 'b c')"; status=$?
expect "ARM program through the emulator" "qemu -L /the/root -0 $work/bin/armprog $work/bin/armprog a b c" "$out"
expect "the emulator's status is the program's" 7 "$status"
out="$(PATH="$work/bin:$PATH" "$run" armprog x)"
expect "ARM program found on PATH keeps its argv[0]" "qemu -L /the/root -0 armprog $work/bin/armprog x" "$out"

out="$("$run" /bin/sh -c 'echo "$0|$1"; exit 3' zero one)"; status=$?
expect "a program of this machine runs directly" "zero|one" "$out"
expect "its status" 3 "$status"
out="$("$run" sh -c 'echo found')"
expect "found on PATH" found "$out"
# The same process: whoever started the wrapper watches the program's pid.
out="$(sh -c '"$1" sh -c "echo \$\$" & echo "$!"; wait' sh "$run" | sort -u | wc -l)"
expect "the program keeps the wrapper's pid" 1 "$out"

# Signals 32 and 33 at their default in what it starts (make, for one,
# starts its commands with both ignored).
out="$("$run" /bin/sh -c 'grep ^SigIgn: /proc/self/status')"
expect "the C library's signals 32 and 33 are not ignored" 0 "$(( 0x${out##*[[:space:]]} >> 31 & 3 ))"

out="$("$run" "$work/arm64prog" 2>&1)"; status=$?
expect "64-bit ARM is not run through qemu-arm" 127 "$status"
out="$("$run" "$work/armbe" 2>&1)"; status=$?
expect "big-endian ARM is not run through qemu-arm" 127 "$status"
case "$out" in *"cannot run $work/armbe"*) expect "and says so" 1 1 ;; *) expect "and says so" "cannot run ..." "$out" ;; esac

out="$(LUMORA_ARM_ROOT= "$run" "$work/bin/armprog" 2>&1)"; status=$?
expect "no root known: status 127" 127 "$status"
case "$out" in *"set LUMORA_ARM_ROOT"*) expect "and what to do" 1 1 ;; *) expect "and what to do" "... set LUMORA_ARM_ROOT" "$out" ;; esac
out="$(LUMORA_ARM_QEMU="$work/no-such-qemu" "$run" "$work/bin/armprog" 2>&1)"; status=$?
expect "no emulator: status 127" 127 "$status"
"$run" "$work/no-such-program" 2>/dev/null; status=$?
expect "no program: status 127" 127 "$status"
"$run" >/dev/null 2>&1; status=$?
expect "no arguments: usage, status 2" 2 "$status"

[ "$failures" -eq 0 ] || { echo "$failures case(s) failed"; exit 1; }
