#!/bin/bash
# Which folder may include which stands in the table of sources of docs/architecture.md. Prints what
# breaks it: an include against it, a folder without a row, two files that include each other, a file
# that does not open by saying what it is for.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files --cached --others --exclude-standard '*.cpp' '*.h' '*.c' | perl -e '
use strict;
my (%uses, %edges, $bad);
sub complain { print "@_\n"; $bad = 1 }

# | `frx/` | guarded interface | `core` |
open my $document, "<", "docs/architecture.md" or die "docs/architecture.md: $!\n";
while (<$document>) {
    my ($folder, $others) = m{^\| `([a-z/]+)/` \|.*\|([^|]*)\|$} or next;
    $uses{$folder} = $others =~ /everything/ ? "everything" : join "|", $others =~ /`([a-z\/]+)`/g;
}
for my $file (map { chomp; $_ } <STDIN>) {
    next unless -e $file; # moved or taken away, and not committed yet
    # The row of the innermost folder that has one.
    my $folder = $file;
    while (!exists $uses{$folder}) {
        last unless $folder =~ s{/[^/]*$}{};
    }
    complain("$file: docs/architecture.md has no row for its folder"), next unless exists $uses{$folder};
    open my $source, "<", $file or die "$file: $!\n";
    my $first = 1;
    while (<$source>) {
        # A test says it by its name; a source whose first line is its own header, by that.
        my ($unit) = $file =~ m{^(.*)\.};
        complain("$file: does not open with what it is for")
            if $first && !m{^(?://|/\*|#include "\Q$unit\E\.h")} && $file !~ m{^(?:tests|docs)/};
        $first = 0;
        my ($included) = /^#\s*include "([^"]+)"/ or next;
        next if $included =~ m{^halvo/};
        my $allowed = $uses{$folder};
        complain("$file: includes $included")
            unless $included =~ m{^\Q$folder\E/} || $allowed eq "everything"
            || ($allowed && $included =~ m{^(?:$allowed)/});
        my ($from, $to) = map { s{\.[a-z]+$}{}r } $file, $included;
        $edges{$from}{$to} = 1 if $from ne $to;
    }
}
# A file and its header are one; no chain of includes may lead back to where it began.
my %state;
sub visit {
    my ($unit, @path) = @_;
    for my $next (sort keys %{$edges{$unit} // {}}) {
        if (($state{$next} // "") eq "open") {
            complain("a circle: " . join(" -> ", @path, $unit, $next));
        } elsif (!$state{$next}) {
            $state{$next} = "open";
            visit($next, @path, $unit);
            $state{$next} = "done";
        }
    }
}
for my $unit (sort keys %edges) {
    next if $state{$unit};
    $state{$unit} = "open";
    visit($unit);
    $state{$unit} = "done";
}
exit($bad ? 1 : 0);
'
