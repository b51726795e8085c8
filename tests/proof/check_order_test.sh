#!/bin/bash
# The look at the machine code finds an exchange with memory wherever one is planted in a ring
# operation or in what it calls: check_order_test.sh CHECK LIBRARY
set -euo pipefail
check=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
strip --strip-debug -o "$work/sound.so" "$2"
"$check" --list "$work/sound.so" >"$work/functions"
mapfile -t operations < <(grep -E ' q_[a-z_]+$' "$work/functions")
mapfile -t called < <(grep -vE ' q_[a-z_]+$' "$work/functions")
read -r address offset < <(objdump -h "$work/sound.so" | awk '$2 == ".text" { print $4, $6 }')
plant() {
    printf '\x87\x04\x24' | # xchg %eax, (%esp)
        dd of="$work/planted.so" bs=1 conv=notrunc status=none \
            seek=$((16#${1% *} - 16#$address + 16#$offset))
}
found() { "$check" "$work/planted.so" | grep -cE ': xchg +%eax,\(%[er]sp\)' || true; }
status=0
judge() {
    echo "figure | exchanges planted and found in $1 | $2 | $3"
    [ "$2" -gt 5 ] && [ "$3" -eq "$2" ] || status=1
}

# All operations at once. What they call one by one: an exchange takes the place of instructions, and
# one of these may be the call that leads to the next function.
cp "$work/sound.so" "$work/planted.so"
for function in "${operations[@]}"; do plant "$function"; done
judge "the ring operations" ${#operations[@]} "$(found)"
found_in_called=0
for function in "${called[@]}"; do
    cp "$work/sound.so" "$work/planted.so"
    plant "$function"
    [ "$(found)" -gt 0 ] && found_in_called=$((found_in_called + 1))
done
judge "the functions that they call" ${#called[@]} $found_in_called
exit $status
