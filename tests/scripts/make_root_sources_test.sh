#!/usr/bin/env bash
# make-root --sources: the roots' sources are read from an apt configuration,
# never written in the repository. Each case is an apt folder of its own.
set -euo pipefail
make_root=$1
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failures=0

# check NAME ARCH EXPECTED: the lines make-root prints for $work/NAME.
check() {
  local name=$1 arch=$2 expected=$3 got
  got="$(MAKE_ROOT_APT_ETC="$work/$name" MAKE_ROOT_RELEASE=bookworm "$make_root" --sources "$arch")"
  if [ "$got" != "$expected" ]; then
    printf 'FAIL %s (%s)\n--- expected\n%s\n--- got\n%s\n' "$name" "$arch" "$expected" "$got"
    failures=$((failures + 1))
  else
    echo "ok   $name ($arch)"
  fi
}
etc() { mkdir -p "$work/$1/sources.list.d"; }

# deb822: several suites and URIs in a stanza, a disabled stanza, another
# architecture's repository, a repository of another release, deb-src only,
# an inline key (dropped: the line cannot carry it), continuation lines.
etc deb822
cat >"$work/deb822/sources.list.d/debian.sources" <<'S'
# a comment
Types: deb deb-src
URIs: file:/srv/archive/debian
Suites: bookworm-updates bookworm
Components: main contrib
Signed-By: /usr/share/keyrings/example.gpg

Types: deb
URIs: file:/srv/security/debian-security
Suites: bookworm-security
Components: main
Signed-By:
 -----BEGIN PGP PUBLIC KEY BLOCK-----
 .
 -----END PGP PUBLIC KEY BLOCK-----

Types: deb
Enabled: no
URIs: file:/srv/disabled/debian
Suites: bookworm
Components: main
S
cat >"$work/deb822/sources.list.d/other.sources" <<'S'
Types: deb
URIs: file:/srv/amd64-only/apt
Suites: bookworm
Components: main
Architectures: amd64

Types: deb-src
URIs: file:/srv/src-only/debian
Suites: bookworm
Components: main

Types: deb
URIs: file:/srv/old/debian
Suites: bullseye bullseye-updates
Components: main
S
echo 'Types: deb' >"$work/deb822/sources.list.d/ignored.sources.disabled"
check deb822 armhf "deb [signed-by=/usr/share/keyrings/example.gpg] file:/srv/archive/debian bookworm main
deb [signed-by=/usr/share/keyrings/example.gpg] file:/srv/archive/debian bookworm-updates main
deb file:/srv/security/debian-security bookworm-security main"
# The amd64-only repository belongs to an amd64 root.
check deb822 amd64 "deb [signed-by=/usr/share/keyrings/example.gpg] file:/srv/archive/debian bookworm main
deb file:/srv/amd64-only/apt bookworm main
deb [signed-by=/usr/share/keyrings/example.gpg] file:/srv/archive/debian bookworm-updates main
deb file:/srv/security/debian-security bookworm-security main"

# One-line form: options in brackets, comments, deb-src, a line without main,
# the old security suite, a trailing slash, the same source twice.
etc oneline
cat >"$work/oneline/sources.list" <<'S'
deb [arch=amd64,arm64 signed-by=/k/one.gpg] file:/srv/one/debian bookworm main
deb file:/srv/two/debian/ bookworm main non-free # a trailing comment
deb-src file:/srv/two/debian bookworm main
# deb file:/srv/commented/debian bookworm main
deb file:/srv/contrib-only/debian bookworm contrib
deb file:/srv/security bookworm/updates main
S
cat >"$work/oneline/sources.list.d/extra.list" <<'S'
deb [arch=i386] file:/srv/i386/debian bookworm-updates main
deb file:/srv/two/debian bookworm main
S
check oneline armhf "deb file:/srv/two/debian bookworm main
deb file:/srv/security bookworm/updates main"
check oneline i386 "deb file:/srv/two/debian bookworm main
deb file:/srv/i386/debian bookworm-updates main
deb file:/srv/security bookworm/updates main"
check oneline arm64 "deb [signed-by=/k/one.gpg] file:/srv/one/debian bookworm main
deb file:/srv/two/debian bookworm main
deb file:/srv/security bookworm/updates main"

# Nothing configured: nothing printed (make-root then refuses with a message).
etc empty
check empty armhf ""

# A root is refused, with its reason, when no source of the release is there.
if out="$(MAKE_ROOT_APT_ETC="$work/empty" MAKE_ROOT_RELEASE=bookworm "$make_root" armhf "$work/root" libc6 2>&1)"; then
  echo "FAIL make-root made a root without sources"; failures=$((failures + 1))
elif ! grep -q 'no Debian source for bookworm' <<<"$out"; then
  printf 'FAIL make-root without sources says:\n%s\n' "$out"; failures=$((failures + 1))
else
  echo "ok   no sources: refused"
fi
# Wrong usage is status 2.
set +e
"$make_root" armhf >/dev/null 2>&1
[ $? -eq 2 ] && echo "ok   usage: status 2" || { echo "FAIL usage: not status 2"; failures=$((failures + 1)); }
set -e

[ "$failures" -eq 0 ] || { echo "$failures case(s) failed"; exit 1; }
