#!/bin/bash
# The look at the machine code finds an exchange with memory wherever one is planted in a ring
# operation or in what it calls: check_order_test.sh CHECK LIBRARY
set -euo pipefail
check=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
strip --strip-debug -o "$work/sound.so" "$2"
mapfile -t functions < <("$check" --list "$work/sound.so")
read -r address offset < <(objdump -h "$work/sound.so" | awk '$2 == ".text" { print $4, $6 }')
status=0
# The operations themselves, and then what they call, for which the former must be whole.
for which in ' q_[a-z_]+$' ' (q_[a-z_]+\.|[^q])'; do
    cp "$work/sound.so" "$work/planted.so"
    planted=0
    for function in "${functions[@]}"; do
        [[ $function =~ $which ]] || continue
        printf '\x87\x04\x24' | # xchg %eax, (%esp)
            dd of="$work/planted.so" bs=1 conv=notrunc status=none \
                seek=$((16#${function% *} - 16#$address + 16#$offset))
        planted=$((planted + 1))
    done
    found=$("$check" "$work/planted.so" | grep -cE ': xchg +%eax,\(%[er]sp\)' || true)
    echo "figure | exchanges planted and found in functions like$which | $planted | $found"
    [ "$planted" -gt 5 ] && [ "$found" -eq "$planted" ] || status=1
done
exit $status
