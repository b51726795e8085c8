#!/bin/bash
# Runs the examples of documents as a reader would, in a scratch directory, with a build tree
# installed there. CONTRIBUTING.md tells how blocks are marked.
#     run_docs.sh BUILD-TREE LIBDIR SOURCE-TREE JDK-OR-EMPTY DOCUMENT...
set -euo pipefail
build=$1 libdir=$2 source=$3 jdk=$4
shift 4
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-test-docs-XXXXXX")
prefix=$work/usr

clean_up() {
    local status=$? key
    trap - EXIT
    for key in "$work"/tmp/*/*.key; do
        [ ! -e "$key" ] || "$prefix/bin/halvo-qm" remove --key "$key" >/dev/null || true
    done
    rm -rf "$work"
    exit $status
}
trap clean_up EXIT
trap 'exit 143' INT TERM

cmake --install "$build" --prefix "$prefix" >/dev/null
export PATH=${jdk:+$jdk/bin:}$prefix/bin:$PATH
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig LD_LIBRARY_PATH=$prefix/$libdir
export JAVA_TOOL_OPTIONS="-Djava.library.path=$prefix/$libdir/jni"

# Writes the files of a document, and a script of its commands. What a reader has in /usr and /tmp is
# in the scratch directory here.
extract() { # DOCUMENT DIRECTORY SKIPPED-WORDS
    awk -v name="${1#"$source"/}" -v dir="$2" -v skipped="$3" '
        function bad(why) { print name ":" FNR ": " why; exit 1 }
        /^```/ && !inside {
            inside = 1; kind = ""; n = split(substr($0, 4), words, " ")
            for (i = 2; i <= n; i++) {
                if (words[i] ~ /^file=/) { kind = "file"; file = dir "/" substr(words[i], 6) }
                else if (i == 2) kind = words[i]
                else if (index(skipped, words[i])) kind = "skip"
            }
            if (kind == "" && words[1] ~ /^(sh|c|java|toml)$/ && name !~ /README/)
                bad("a block of " words[1] " that nothing runs")
            if (kind == "run") { ran = 1; print "{ :" >script }
            if (kind == "skip") ran = 0
            if (kind == "output" && ran) print "expected=$(cat <<\"END OF OUTPUT\"" >script
            next
        }
        /^```/ {
            inside = 0
            if (kind == "run")
                print "} >\"$printed\" 2>&1 || { cat \"$printed\"; echo \"" name ":" FNR \
                    ": failed\"; exit 1; }" >script
            if (kind == "output" && ran)
                print "END OF OUTPUT\n)\ncompare \"" name ":" FNR "\"" >script
            next
        }
        inside && kind == "file" { print >file }
        inside && (kind == "run" || kind == "output" && ran) { print >script }
        inside && kind == "make" && /^make/ { print $2 >targets }
    ' script="$2/commands.sh" targets="$2/targets" "$1"
    [ ! -e "$2/commands.sh" ] || sed -i "s|/tmp/|$2/|g; s|/usr/share/|$prefix/share/|g" "$2/commands.sh"
}

skipped=
[ "$jdk" ] || skipped+=" java"
[ -x "$prefix/bin/halvo-mon" ] || skipped+=" mon"
# Prepares a directory for a document, and all.sh in it when the document has commands.
prepare() { # DOCUMENT DIRECTORY
    mkdir -p "$2/build"
    # The README's reader stands in a checkout.
    ln -s "$build" "$2/build/i386"
    ln -s "$source/docs" "$source/tools" "$source/include" "$2"
    extract "$source/$1" "$2" "$skipped"
    if [ -e "$2/targets" ]; then
        while read -r target; do
            grep -q "^$target:" "$source/Makefile" || { echo "$1: no make $target"; exit 1; }
        done <"$2/targets"
    fi
    [ -e "$2/commands.sh" ] || return 0
    # Each expected line must be printed, in this order; others may stand between.
    cat - "$2/commands.sh" >"$2/all.sh" <<'END'
set -eu -o pipefail
printed=$PWD/printed
compare() {
    # A name in the shell's own directory is printed as the reader sees it.
    sed -i "s|$PWD/|/tmp/|g" "$printed"
    expected=${expected//"$PWD/"//tmp/}
    awk 'NR == FNR { want[++n] = $0; next } $0 == want[at + 1] { at++ }
         END { if (at < n) { print "not printed: " want[at + 1]; exit 1 } }' \
        <(echo "$expected") "$printed" || { echo "$1: printed was"; cat "$printed"; exit 1; }
}
END
}

for document in "$@"; do
    for attempt in 1 2 3 4 5; do
        # Keys come from the inodes of key files and are few: another test may hold the same one.
        directory=$work/tmp/$(basename "$document" .md)-$attempt
        prepare "$document" "$directory"
        [ -e "$directory/all.sh" ] || break
        if (cd "$directory" && bash all.sh) >"$work/log" 2>&1; then
            echo "$document: $(grep -c '^{ :' "$directory/commands.sh") blocks run"
            break
        fi
        [ $attempt -lt 5 ] && grep -q '; --replace removes it first' "$work/log" && continue
        cat "$work/log"
        exit 1
    done
done
