#!/bin/bash
# Looks at the machine code of the ring operations in a built library: dev/check_order.sh LIBRARY
# They are plain loads and stores, whose order x86 keeps: no lock prefix, no fence, no exchange with
# memory, and no calls but to each other, for the copies, and for the lines that report a failure.
# What is looked at follows from the library: every exported operation on a ring, and every function
# that one of these calls or jumps to, directly or not. (The order of the stores itself is observed by
# single steps, in the stress tests.) With --list it prints those functions: address, name.
set -euo pipefail
list=
if [ "$1" = --list ]; then
    list=1
    shift
fi
library=$1

# Exported q_ functions that are no operations on a ring. A new one must be either here or below.
others='q_(0|attach_view|chnnl2q|name2chnnl|statchr|open|open_wait|close|recover|set_spin|settime|(save_|load_)?snapshot'
others+='|.*print.*|statlog|last|day_millis)'
ring='q_(read.*|writ.*|peek.*|release.*|reserve.*|publish.*|[pg]count_.*|getcount|gettime|check_tps)'

exports=$(nm -D --defined-only "$library" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' | grep '^q_')
roots=$(grep -xE "$ring" <<<"$exports")
unknown=$(grep -vxE "$ring|$others" <<<"$exports" || true)
if [ -n "$unknown" ]; then
    printf 'neither a ring operation nor known as another function:\n%s\n' "$unknown"
    exit 1
fi

objdump -d --no-show-raw-insn "$library" | LIST=$list ROOTS=$roots perl -ne '
    BEGIN {
        # What may be called in the library of the system: copies, and what the line of a failure needs.
        $outside = qr/^(memcpy|memmove|v?f?printf|__v?f?printf_chk|pthread_setcancelstate)\@plt$/;
        # Of the compiler: the address of the data, and divisions of 64 bits.
        $compiler = qr/^(__x86\.get_pc_thunk\.[a-z]+|__u?divdi3|__divmoddi4|__udivmoddi4)$/;
    }
    if (/^([0-9a-f]+) <(.*)>:$/) { $at = hex $1; $name{$at} = $2; $of{$2} //= $at; next }
    next unless defined $at && /^ *[0-9a-f]+:\t(.*)/;
    push @{$code{$at}}, $1;
    END {
        my @left = map { $of{$_} // die "$_ has no code\n" } split " ", $ENV{ROOTS};
        my (%seen, @faults, $instructions);
        while (defined(my $function = shift @left)) {
            next if $seen{$function}++;
            if ($ENV{LIST}) { printf "%x %s\n", $function, $name{$function} }
            for (@{$code{$function}}) {
                $instructions++;
                my $where = "$name{$function}: $_";
                push @faults, "$where\n" if /^(lock |(rep\w* )?([lms]fence|cmpxchg|xadd))/ || /^xchg .*\(/;
                if (/^(notrack )?(call|jmp)\w* +\*/) { push @faults, "$where: leads anywhere\n"; next }
                next unless /^(?:bnd )?(?:call|j\w+) +([0-9a-f]+) <([^>+]+)(\+0x[0-9a-f]+)?>/;
                my ($to, $target) = (hex $1, $2);
                $to = $of{$target} if defined $3;
                next if $to == $function || $target =~ $compiler;
                if ($target =~ /\@plt/) {
                    push @faults, "$where: no ring operation calls that\n" unless $target =~ $outside;
                    next;
                }
                push @left, $to;
            }
        }
        exit 0 if $ENV{LIST};
        print sort @faults;
        printf "figure | ring operations and functions that they call | - | %d\n", scalar keys %seen;
        printf "figure | instructions of the ring operations | - | %d\n", $instructions;
        printf "figure | of them locks, fences, exchanges with memory, calls elsewhere | 0 | %d\n",
            scalar @faults;
        exit(@faults ? 1 : 0);
    }'
