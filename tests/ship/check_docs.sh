#!/bin/bash
# Compares documents with what they tell of: links, pictures and their sources, and the page of kept
# behaviour with the sources' comments and the tests.
#     check_docs.sh SOURCE-TREE
set -euo pipefail
cd "$1"
status=0
complain() { echo "$*"; status=1; }

for document in README.md CONTRIBUTING.md docs/*.md; do
    for link in $(grep -oE '\]\([^)#:]+' "$document" | cut -c 3-); do
        [ -e "$(dirname "$document")/$link" ] || complain "$document: no $link"
    done
done

for picture in docs/pictures/*.dot; do
    grep -q "source $(sha256sum <"$picture" | cut -c 1-64)" "${picture%.dot}.svg" ||
        complain "$picture has changed since it was drawn: make pictures"
done

# The README shows the examples as they are installed and compiled.
for example in hello.c Hello.java; do
    block='```'${example#*.}$'\n'$(<"docs/examples/$example")$'\n```'
    [[ $(<README.md) == *"$block"* ]] || complain "README.md: $example is not shown as it is"
done

kept=docs/kept-behaviour.md
commented() {
    grep -rE --include='*.cpp' --include='*.h' --include='*.java' -o 'Kept:' \
        core frx fq print jni tools include | cut -d: -f1 | sort | uniq -c
}
diff <(commented) <(sed -n 's/^| `\([^`]*\)` | .*/\1/p' $kept | sort | uniq -c) ||
    complain "comments Kept: in the sources (<) and rows of $kept (>) differ"
tests=$(grep -rhE '^TEST(_[FP])?\(' tests --include='*.cpp' |
    sed -E 's/^TEST(_[FP])?\((\w+), *(\w+).*/\2.\3/'
    grep -roE 'public void \w+\(' tests/jni/java | sed -E 's|.*/(\w+)\.java:.* (\w+)\(|\1.\2|')
while read -r test; do
    grep -qxF "$test" <<<"$tests" || complain "$kept: there is no test $test"
done < <(sed -n 's/^| .* | `\([A-Za-z]*\.[A-Za-z_0-9]*\)` |$/\1/p' $kept)
while read -r row; do complain "$kept: no test and no reason: $row"; done < <(
    grep '^| `' $kept | grep -vE '\| (`\w+\.\w+`|none: .*) \|$' || true)
exit $status
