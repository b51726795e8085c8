#!/bin/sh
# Installs built presets: PREFIX=/usr/local DESTDIR= dev/install.sh i386 x86_64
# The libraries stand side by side; programs, jars and pages come from the first preset.
set -eu
cd "$(dirname "$0")/.."
prefix=${PREFIX:-/usr/local}
for preset in "$@"; do
    [ -e "build/$preset/cmake_install.cmake" ] ||
        { echo "install: build/$preset is not built: make build first" >&2; exit 1; }
done
components="runtime development java tools relay"
for preset in "$@"; do
    for component in $components; do
        cmake --install "build/$preset" --strip --prefix "$prefix" --component "$component"
    done
    components="runtime development"
done
# A running machine's loader looks into its cache.
if [ -z "${DESTDIR-}" ] && [ "$(id -u)" = 0 ] && command -v ldconfig >/dev/null; then ldconfig; fi
