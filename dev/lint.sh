#!/bin/bash
# Format, includes, and clang-tidy on the library and the tools.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0
dev/check_includes.sh || status=1
mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h' '*.hpp')
clang-format --dry-run --Werror "${sources[@]}" || status=1
cmake --preset x86_64 >/dev/null
cmake --build --preset x86_64 --target tools/mon/serve/page.inc >/dev/null # which a source includes
# clang knows neither the charset option nor some of g++'s.
mkdir -p build/lint
sed 's/-fexec-charset=EUC-KR//' build/x86_64/compile_commands.json >build/lint/compile_commands.json
mapfile -t checked < <(git ls-files 'core/*.cpp' 'frx/*.cpp' 'fq/*.cpp' 'print/*.cpp' 'jni/*.cpp' 'tools/*.cpp')
printf '%s\0' "${checked[@]}" | xargs -0 -P "$(nproc)" -n 4 clang-tidy --quiet -p build/lint || status=1
exit $status
