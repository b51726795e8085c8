#!/bin/sh
# Installs what is missing to build and test on Debian 12, as root or by sudo.
#
#     dev/setup.sh          compilers, build tools, libraries, 64-bit and 32-bit JDK
#     dev/setup.sh lint     also the formatter and the checker
#     dev/setup.sh fuzz     also the compiler that builds fuzzers
#     dev/setup.sh bench    also what the benchmark compares with, and the plotter
#     dev/setup.sh package  also what makes and checks Debian packages
#     dev/setup.sh pictures what draws the pictures of the documents, alone
#     dev/setup.sh relay    also, without fail, the broker that the relay's demonstration needs
#
# Asks the package database only when nothing is missing. Ends with status 1 when something is
# missing that the build needs, with one line that names it.
# The lists of packages are meant to be split into words.
# shellcheck disable=SC2086
set -eu

release=bookworm
# Headers of the native architecture serve both word sizes; 32-bit development packages would need the
# 32-bit C library's as well.
needed="g++ g++-multilib cmake ninja-build make
    libgtest-dev libcli11-dev libtomlplusplus-dev
    libmicrohttpd-dev libmicrohttpd12:i386 nlohmann-json3-dev
    libncurses-dev libncursesw6:i386 libtinfo6:i386 libsqlite3-dev libsqlite3-0:i386
    openjdk-17-jdk-headless openjdk-17-jdk-headless:i386 junit4 pkgconf"
# Some tests use them; pandoc makes the manual pages. The browser and Prometheus look at the served
# page and its figures.
wanted="tmux libxml2-utils jq strace man-db pandoc
    curl python3 chromium chromium-driver fonts-nanum prometheus"
# Of the relay: its library, and a broker to test with, which is started by the tests alone.
broker="librabbitmq-dev librabbitmq4:i386 rabbitmq-server python3-pika openssl"
wanted="$wanted $broker"

case "${1-}" in
'') ;;
lint) needed="$needed clang-format clang-tidy" ;;
fuzz) needed="$needed clang-14 libclang-rt-14-dev" ;;
bench)
    needed="$needed gnuplot-nox libboost-dev libleveldb-dev libleveldb1d:i386"
    ;;
package) needed="$needed pandoc dpkg-dev file lintian debootstrap" ;;
pictures) needed=graphviz wanted= ;;
relay) needed="$needed $broker" ;;
*)
    echo "usage: $0 [lint|fuzz|bench|package|pictures|relay]" >&2
    exit 2
    ;;
esac

say() { echo "setup: $*" >&2; }

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    say "no Debian packages here; install these in your own way:"
    echo $needed $wanted >&2
    exit 1
fi

native=$(dpkg --print-architecture)

# Those of the given packages that are not installed.
missing_of() {
    installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}:${Architecture}\n' |
        sed -n 's/^installed //p')
    for package in "$@"; do
        case $package in
        *:*) set -- -e "$package" ;;
        *) set -- -e "$package:$native" -e "$package:all" ;;
        esac
        printf '%s\n' "$installed" | grep -Fqx "$@" || printf '%s ' "$package"
    done
}

as_root() {
    if [ "$(id -u)" = 0 ]; then
        env DEBIAN_FRONTEND=noninteractive "$@"
    else
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    fi
}

apt() { as_root apt-get -q -y -o DPkg::Lock::Timeout=300 "$@"; }

# All of one release first: the 32-bit packages must have the versions of the 64-bit ones, and the
# two may differ while an index of updates is not to be had. Nothing is ever removed for it.
install() {
    if apt-cache policy | grep -q "n=$release,"; then
        apt install --no-install-recommends --no-remove -t "$release" "$@" && return
    fi
    apt install --no-install-recommends --no-remove "$@"
}

# A package that brings a service must not start it here. Whoever has a policy already, keeps it.
policy=/usr/sbin/policy-rc.d
start_nothing() {
    [ ! -e $policy ] || return 0
    trap 'as_root rm -f $policy' EXIT
    as_root sh -c "printf '#!/bin/sh\nexit 101\n' >$policy && chmod 755 $policy"
}

missing=$(missing_of $needed $wanted)
if [ "$missing" ]; then
    if [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; then
        say "cannot install without root or sudo: $missing"
        exit 1
    fi
    say "installing $missing"
    case " $native $(dpkg --print-foreign-architectures | tr '\n' ' ')" in
    *" i386 "*) ;;
    *) as_root dpkg --add-architecture i386 || say "cannot add the architecture i386" ;;
    esac
    apt update || say "some package index could not be loaded; going on without it"
    case " $missing " in *" rabbitmq-server "*) start_nothing ;; esac
    if ! install $missing; then
        # One that cannot be had must not keep the others away.
        for package in $missing; do install "$package" || true; done
    fi
fi

missing=$(missing_of $wanted)
[ -z "$missing" ] || say "could not install (only some tests, the relay and the manual need it): $missing"
missing=$(missing_of $needed)
[ -z "$missing" ] || {
    say "could not install: $missing"
    exit 1
}
