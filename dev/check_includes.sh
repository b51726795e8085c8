#!/bin/sh
# Dependencies point one way: tools and tests -> everything; jni -> core, fq, print; frx, fq, print
# -> core; core -> nothing of these; public headers -> public headers. Prints what breaks that.
set -eu
cd "$(dirname "$0")/.."
# allowed FOLDER REGEX: includes of our own in FOLDER must match halvo/... or REGEX.
bad=
allowed() {
    [ -d "$1" ] || return 0
    found=$(grep -rnE '^#include "' --include='*.h' --include='*.cpp' --include='*.c' "$1" |
        grep -vE "#include \"(halvo/|$2)" || true)
    bad="$bad$found"
    [ -z "$found" ] || printf '%s\n' "$found"
}
allowed include/halvo '^$'
allowed core 'core/'
allowed frx 'core/|frx/'
allowed fq 'core/|fq/'
allowed print 'core/|print/'
allowed jni 'core/|fq/|print/|jni/'
[ -z "$bad" ]
