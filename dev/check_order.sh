#!/bin/bash
# Looks at the machine code of the ring operations in a built library: dev/check_order.sh LIBRARY
# They are plain loads and stores, whose order x86 keeps: no lock prefix, no fence, no exchange with
# memory, and no calls but to each other, for the copies, and for the lines that report a failure.
# (The order of the stores itself is observed by single steps, in the stress tests.)
set -euo pipefail
library=$1

operations='q_write q_write_mark q_write_mark_at q_write_commit q_write_commit_all q_write_rollback
    q_write_rollback_all q_writeview q_writable_count q_read q_readview q_read_mark
    q_read_markedcount q_read_markedmsg q_read_commit q_read_rollback q_read_buf q_read_buf_clear
    q_write_buf q_write_buf_commit q_write_buf_rollback q_pcount_up q_gcount_up q_gettime q_check_tps'

# One line "function: instruction" for each instruction of the operations and of what they call.
# What the compiler has split off keeps the name in front of a dot.
code=$(objdump -d --no-show-raw-insn -C "$library" | awk -v names="$operations" '
    BEGIN { split(names, list, /[ \n]+/); for (i in list) wanted[list[i]] = 1 }
    /^[0-9a-f]+ <.*>:$/ {
        name = $0
        sub(/^[0-9a-f]+ </, "", name); sub(/>:$/, "", name)
        plain = name; sub(/ \[clone .*/, "", plain); sub(/\.(part|cold|constprop|isra).*/, "", plain)
        shown = plain in wanted || plain ~ /^halvo::(take\(|park\(|touch_|rate_refused|length_fault|longest_message|attached_segment)/ ||
                plain ~ /\(anonymous namespace\)::(publish|consume|mark|fill|look_ahead|count_one)\(/
        next
    }
    shown && /^ *[0-9a-f]+:/ { sub(/^ *[0-9a-f]+:[ \t]*/, ""); print name ": " $0 }')

status=0
for name in $operations; do
    grep -q "^$name: " <<<"$code" || { echo "$name is not in $library"; status=1; }
done

locked=$(grep -E ': (lock |[lms]fence|xchg .*\(|(lock )?(cmpxchg|xadd))' <<<"$code" || true)
if [ -n "$locked" ]; then
    echo "$locked"
    echo "a locked or fencing instruction in a ring operation"
    status=1
fi

strange=$(sed -nE 's/.*: call +[0-9a-f]+ <([^>]+)>.*/\1/p' <<<"$code" | sort -u | grep -vE \
    '^(q_[a-z_]+(@plt)?|(memcpy|printf|__printf_chk|puts)@plt|__x86\.get_pc_thunk\.[a-z]+|__divdi3|halvo::.*|\(anonymous namespace\)::.*|.*\[clone .*)$' || true)
if [ -n "$strange" ]; then
    printf 'ring operations call:\n%s\n' "$strange"
    status=1
fi

echo "figure | instructions of the ring operations | - | $(wc -l <<<"$code")"
echo "figure | of them locks, fences, exchanges with memory, calls elsewhere | 0 | $(
    printf '%s\n%s' "$locked" "$strange" | grep -c . || true)"
exit $status
