#!/bin/bash
# Installs a build tree under a scratch prefix, and builds, links and runs a C program by pkg-config,
# a C++ program by CMake and a Java program by the jar, with what is installed there alone.
#     install_test.sh BUILD-TREE LIBDIR WIDTH SOURCE-TREE [JDK]
set -euo pipefail
build=$1 libdir=$2 width=$3 source=$4 jdk=${5-}
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-test-install-XXXXXX")
key=$work/1.key

clean_up() {
    local status=$?
    trap - EXIT
    [ ! -e "$key" ] || "$work/moved/bin/halvo-qm" remove --key "$key" || status=1
    rm -rf "$work"
    [ $status = 0 ] || echo "FAILED at: $step" >&2
    exit $status
}
step="start"
trap clean_up EXIT
trap 'exit 143' INT TERM
step() { step=$*; echo "== $*"; }

# What has no component would be in no package.
step "components"
DESTDIR=$work/rest cmake --install "$build" --component Unspecified >"$work/log"
[ ! -e "$work/rest" ] || { find "$work/rest"; exit 1; }
for component in $(sed -n 's/.* COMPONENT \([a-z]*\).*/\1/p' "$source/cmake/install.cmake" | sort -u); do
    grep -qw "components=.*$component" "$source/dev/install.sh" || { echo "make install has no $component"; exit 1; }
done

# A tree may be moved after it was installed, as DESTDIR and packages do.
step "install"
DESTDIR=$work/stage cmake --install "$build" --strip --prefix /opt/halvo >"$work/log" 2>&1 ||
    { cat "$work/log"; exit 1; }
mv "$work/stage/opt/halvo" "$work/moved"
prefix=$work/moved
if grep -rl --include='*.pc' --include='*.cmake' -e "$build" -e "$source" "$prefix"; then
    echo "the files above name the build"
    exit 1
fi
version=$(PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig pkg-config --modversion halvoipc)
[ "$(readlink "$prefix/$libdir/libhalvoipc.so")" = libhalvoipc.so.1 ]
[ "$(readlink "$prefix/$libdir/libhalvoipc.so.1")" = "libhalvoipc.so.$version" ]
[ "$("$prefix/bin/halvo-qm" --version)" = "halvo-qm $version" ]

step "a segment of the installed queue manager"
export PATH=$prefix/bin:$PATH
# Keys come from the inodes of key files and are few: another test may hold the same one.
for attempt in 1 2 3 4 5; do
    key=$work/$attempt.key
    halvo-qm create "$prefix/share/doc/halvo-tools/examples/example.toml" --key "$key" && break
    touch "$work/filler-"{1,2,3}"-$attempt"
done
hello() { [[ "$("$@" "$key")" == *"hello, world"* ]]; }

step "C by pkg-config"
examples=$prefix/share/doc/libhalvoipc-dev/examples
for example in hello in_place; do
    # shellcheck disable=SC2046 # the flags are several words
    gcc -m"$width" -Wall -Wextra -Werror "$examples/$example.c" -o "$work/$example-c" \
        $(PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig pkg-config --cflags --libs halvoipc) \
        -Wl,-rpath,"$prefix/$libdir"
    hello "$work/$example-c"
done

step "C++ by CMake"
configure() {
    CXXFLAGS=-m$1 cmake -S "$examples" -B "$work/$1" -DCMAKE_PREFIX_PATH="$prefix" \
        >"$work/log" 2>&1
}
configure "$width" || { cat "$work/log"; exit 1; }
cmake --build "$work/$width" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
hello "$work/$width/hello"
hello "$work/$width/in_place"
if configure $((96 - width)); then
    echo "a program of $((96 - width)) bits was given the library of $width bits"
    exit 1
fi

if [ "$jdk" ]; then
    step "Java by the jar"
    jar=$prefix/share/java/halvoipc.jar
    "$jdk/bin/javac" -cp "$jar" -d "$work" "$prefix/share/doc/libhalvoipc-java/examples/Hello.java"
    got=$("$jdk/bin/java" -cp "$jar:$work" -Djava.library.path="$prefix/$libdir/jni" Hello "$key" MT01)
    [[ $got == *"7: Hello, gateway"* ]]
fi

step "completion"
completed=$(bash -c '. "$1"
    COMP_WORDS=(halvo-send --key "$2" MT); COMP_CWORD=3; _halvo halvo-send MT "$2"
    echo "${COMPREPLY[*]}"
    COMP_WORDS=(halvo-qm re); COMP_CWORD=1; _halvo halvo-qm re halvo-qm; echo "${COMPREPLY[*]}"
    COMP_WORDS=(halvo-send --ke); COMP_CWORD=1; _halvo halvo-send --ke halvo-send
    echo "${COMPREPLY[*]}"' - "$prefix/share/bash-completion/completions/halvo-send" "$key")
[ "$completed" = $'MT01 MT02\nremove\n--key --keep-newline' ] || { echo "$completed"; exit 1; }
echo "all done"
