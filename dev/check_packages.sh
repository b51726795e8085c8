#!/bin/bash
# Checks the packages in build/packages: what lintian says, that their fields agree with their files,
# and, in a fresh Debian 12 without anything else, all that README.md says in its blocks "sh packages".
#     dev/check_packages.sh         as root; takes minutes, for it loads a Debian
# The scratch root has namespaces of its own, so nothing in it can stay mounted or in shared memory.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "check_packages: must be root" >&2; exit 2; }
packages=$PWD/build/packages
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-packages-XXXXXX")
root=$work/root
trap 'rm -rf "$work"' EXIT
trap 'exit 143' INT TERM
say() { printf '\n== %s\n' "$*"; }
fail() { echo "check_packages: $*" >&2; exit 1; }

say "lintian"
lintian --fail-on error "$packages"/*.deb

say "files that both word sizes share are the same"
for package in libhalvoipc1 libhalvoipc-dev; do
    for architecture in i386 amd64; do
        dpkg-deb -x "$packages/${package}"_*_$architecture.deb "$work/$package-$architecture"
    done
    for kind in share include; do
        [ ! -d "$work/$package-i386/usr/$kind" ] ||
            diff -r "$work/$package-i386/usr/$kind" "$work/$package-amd64/usr/$kind"
    done
done

say "the C library that is asked for is the one that is needed"
for package in "$packages"/{libhalvoipc1,halvo-tools,halvo-relay}_*.deb; do
    dpkg-deb -x "$package" "$work/one"
    needed=$({ find "$work/one/usr" -type f -exec readelf -V {} + 2>/dev/null || true; } |
        grep -o 'GLIBC_2\.[0-9]*' | sort -Vu | tail -n 1)
    rm -rf "$work/one"
    asked=$(dpkg-deb -f "$package" Depends | sed -n 's/.*libc6 (>= \([0-9.]*\)).*/GLIBC_\1/p')
    echo "$(basename "$package"): $asked asked, $needed needed"
    [ "$(printf '%s\n' "$asked" "$needed" | sort -V | tail -n 1)" = "$asked" ] || fail "$package"
done

say "a fresh Debian"
debootstrap --variant=minbase bookworm "$root" >"$work/log" 2>&1 ||
    { tail -n 20 "$work/log"; exit 1; }
# The way to the network is this machine's.
cp /etc/resolv.conf "$root/etc/"
cp -r /etc/apt/apt.conf.d/. "$root/etc/apt/apt.conf.d/"
mkdir "$root/root/packages"
cp "$packages"/*.deb "$root/root/packages"

say "what README.md says"
{
    echo 'set -eux; cd /root/packages; export DEBIAN_FRONTEND=noninteractive'
    awk '/^```sh packages$/ {inside = 1; next} /^```/ {inside = 0} inside' README.md
} >"$root/root/readme.sh"
[ "$(wc -l <"$root/root/readme.sh")" -gt 10 ] || fail "README.md has no blocks for packages"
unshare --mount --pid --ipc --fork --kill-child --mount-proc="$root/proc" \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    chroot "$root" bash /root/readme.sh 2>&1 | tee "$work/log"
for sign in 'demo: done' 'look at it while it works: http:' 'from a C writer to a Java reader' '7: Hello, gateway'; do
    grep -qF "$sign" "$work/log" || fail "no \"$sign\" above"
done
[ "$(grep -cx 'hello, world' "$work/log")" = 3 ] || fail "not every program said hello"
say "all packages checked"
