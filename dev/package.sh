#!/bin/sh
# Makes the Debian packages of built presets in build/packages: dev/package.sh i386 x86_64
set -eu
cd "$(dirname "$0")/.."
mkdir -p build/packages
rm -f build/packages/*.deb
for preset in "$@"; do
    (cd "build/$preset" && rm -f ./*.deb && cpack >/dev/null)
    mv "build/$preset"/*.deb build/packages
done
ls build/packages/*.deb
