#!/bin/sh
# Configures and builds presets: dev/build.sh i386 x86_64
set -eu
cd "$(dirname "$0")/.."
for preset in "$@"; do
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" --parallel "$(nproc)"
done
