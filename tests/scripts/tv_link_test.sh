#!/usr/bin/env bash
# The stand-in SDK and check-tv-link, run by make check-arm before the real
# TV build is checked with them:
#   - every function platform/include declares is in its stand-in library,
#     and a call of it aborts naming itself;
#   - check-tv-link passes a program that calls only the platform and libc
#     and has the TV's fixed paths, and fails, naming the fault, one that
#     calls an undeclared function, needs a host TV library, or carries a
#     host TV root path.
#
#   tv_link_test.sh SDK WRAPPER     (WRAPPER: cmake/armhf-run, built)
set -uo pipefail
sdk=$1 wrapper=$2
export LUMORA_ARM_ROOT="$sdk"
src="$(cd "$(dirname "$0")/../.." && pwd)"
cc=(arm-linux-gnueabihf-gcc --sysroot="$sdk")
libdir="$sdk/usr/lib/arm-linux-gnueabihf"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
ulimit -c 0
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

# The stand-ins: every declared function defined, and each call aborts naming itself.
cat >"$work/call.c" <<'C'
#include <dlfcn.h>
#include <stdio.h>
int main(int argc, char **argv)
{
    void *lib = argc == 3 ? dlopen(argv[1], RTLD_NOW) : NULL;
    void (*fn)(void) = lib ? (void (*)(void))dlsym(lib, argv[2]) : NULL;
    if (!fn)
        return 3;
    fn();
    return 0;
}
C
"${cc[@]}" -o "$work/call" "$work/call.c" -ldl || { echo "cannot build the caller"; exit 1; }
declared=0
while read -r name lib; do
  declared=$((declared + 1))
  # In a subshell, whose own report of the abort is not wanted here.
  status=$( ("$wrapper" "$work/call" "/usr/lib/arm-linux-gnueabihf/$lib.so" "$name" 2>"$work/err" >/dev/null </dev/null
             echo $?) 2>/dev/null)
  [ "$status" -eq 134 ] || fail "$lib $name: status $status, not an abort"
  grep -q "$lib stand-in: $name called" "$work/err" || fail "$lib $name: does not name itself: $(head -c 200 "$work/err")"
done <"$sdk/usr/share/lumora-standin/declared"
[ "$declared" -ge 20 ] || fail "only $declared declared functions: the headers were not read"
# The header's own count of declarations, independently of the generator.
in_headers=$(cat "$src"/platform/include/*.h "$src"/platform/include/*/*.h | tr '\n' ' ' | tr ';' '\n' |
             grep -cE '^[^#{}]*\b[A-Za-z_][A-Za-z0-9_]* *\([^()]*(\([^()]*\)[^()]*)*\) *$' || true)
[ "$declared" -eq "$in_headers" ] || fail "$declared stand-in functions, $in_headers declarations in platform/include"
echo "ok   $declared stand-in functions, each aborts naming itself"

# Programs for check-tv-link.
cat >"$work/tvhost.c" <<'C'
int tvhost_control_reset(void) { return 0; }
C
"${cc[@]}" -shared -fPIC -o "$work/libtvhost.so" "$work/tvhost.c"
cat >"$work/good.c" <<'C'
#include <stdio.h>
#include <vconf.h>
static const char kMode[] = "/usr/apps/org.kelvar.lumora/bin/mode.xml";
int main(void)
{
    int value = 0;
    vconf_get_int("db/lang", &value);
    return puts(kMode) < 0;
}
C
cat >"$work/undeclared.c" <<'C'
#include <stdio.h>
int tvhost_control_reset(void);
int main(void) { puts("/usr/apps/org.kelvar.lumora/bin/mode.xml"); return tvhost_control_reset(); }
C
cat >"$work/prefixed.c" <<'C'
#include <stdio.h>
int main(void) { return puts("/work/build/host/tvroot/usr/apps/org.kelvar.lumora/bin/mode.xml") < 0; }
C
cat >"$work/nopath.c" <<'C'
#include <stdio.h>
int main(void) { return puts("hello") < 0; }
C
"${cc[@]}" -o "$work/good" "$work/good.c" -lvconf || fail "cannot link against the stand-in libvconf"
"${cc[@]}" -o "$work/undeclared" "$work/undeclared.c" -L"$work" -ltvhost
"${cc[@]}" -o "$work/prefixed" "$work/prefixed.c"
"${cc[@]}" -o "$work/nopath" "$work/nopath.c"

check() { # NAME STATUS TEXT: check-tv-link on the program exits STATUS and says TEXT
  local out status
  out="$("$src/scripts/check-tv-link" "$work/$1" "$sdk" 2>&1)"; status=$?
  if [ "$status" -ne "$2" ] || ! grep -qF -- "$3" <<<"$out"; then
    fail "check-tv-link $1: status $status (expected $2), expected '$3' in: $out"
  else
    echo "ok   check-tv-link $1: $3"
  fi
}
check good 0 "1 of them platform functions; NEEDED: libvconf.so libc.so.6"
check undeclared 1 "undefined tvhost_control_reset: neither declared by platform/include"
check undeclared 1 "NEEDED libtvhost.so: a library of the host TV"
check prefixed 1 "a host TV root path is compiled in"
check nopath 1 "no fixed path /usr/apps/org.kelvar.lumora/"

[ "$failures" -eq 0 ] || { echo "$failures case(s) failed"; exit 1; }
