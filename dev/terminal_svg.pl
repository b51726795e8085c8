#!/usr/bin/perl
# Draws what a program wrote to a terminal as an SVG picture: terminal_svg.pl <output >picture.svg
# Takes UTF-8 with colours (ESC [ ... m); a Korean syllable takes two columns, as in a terminal.
use strict;
use warnings;
use open qw(:std :encoding(UTF-8));

my ($width, $height, $margin) = (8, 18, 12);    # of a column, of a row, around all; in pixels
my @colours = map { '#' . $_ } qw(2b303b ff6b6b 8fd46a f5c451 6cb2f7 d58fe8 5fd3d3 e6e9ef);
my ($plain, $ground) = ('#d8dee9', '#1b1f27');

sub escaped { my $text = shift; $text =~ s/&/&amp;/g; $text =~ s/</&lt;/g; return $text }
sub columns { my $text = shift; my $wide = () = $text =~ /[\x{1100}-\x{115f}\x{2605}\x{2606}\x{3000}-\x{d7a3}\x{ff00}-\x{ff60}]/g; return length($text) + $wide }

my ($row, $most, $body) = (0, 0, '');
my ($fore, $back, $reverse, $bold) = ($plain, '', 0, ''); # they go on in the next line
while (my $line = <STDIN>) {
    chomp $line;
    my $column = 0;
    for my $piece (split /(\e\[[0-9;]*m)/, $line) {
        if ($piece =~ /^\e\[([0-9;]*)m$/) {
            for my $code (split /;/, $1 || '0') {
                if ($code == 0)     { ($fore, $back, $reverse, $bold) = ($plain, '', 0, '') }
                elsif ($code == 1)  { $bold = ' font-weight="bold"' }
                elsif ($code == 2)  { $bold = ' opacity="0.7"' }
                elsif ($code == 22) { $bold = '' }
                elsif ($code == 7)  { $reverse = 1 }
                elsif ($code == 27) { $reverse = 0 }
                elsif ($code >= 30 && $code <= 37) { $fore = $colours[$code - 30] }
                elsif ($code == 39) { $fore = $plain }
                elsif ($code >= 40 && $code <= 47) { $back = $colours[$code - 40] }
                elsif ($code == 49) { $back = '' }
            }
            next;
        }
        my ($colour, $behind) = $reverse ? ($back || $ground, $fore) : ($fore, $back);
        # Words one by one, so that each stands in its columns whatever font there is.
        while ($piece =~ /(\S+|\s+)/g) {
            my ($word, $wide) = ($1, columns($1));
            my ($x, $y) = ($margin + $column * $width, $margin + $row * $height);
            my $length = $wide * $width;
            $body .= qq(<rect x="$x" y="$y" width="$length" height="$height" fill="$behind"/>\n) if $behind;
            $body .= sprintf qq(<text x="%d" y="%d" fill="%s"%s textLength="%d">%s</text>\n),
                $x, $y + $height - 5, $colour, $bold, $length, escaped($word) if $word =~ /\S/;
            $column += $wide;
        }
    }
    $most = $column if $column > $most;
    $row++;
}
my ($w, $h) = ($most * $width + 2 * $margin, $row * $height + 2 * $margin);
print qq(<svg xmlns="http://www.w3.org/2000/svg" width="$w" height="$h" viewBox="0 0 $w $h">\n),
    qq(<rect width="$w" height="$h" rx="6" fill="$ground"/>\n),
    qq(<g font-family="DejaVu Sans Mono,Menlo,Consolas,D2Coding,monospace" font-size="13" xml:space="preserve" lengthAdjust="spacingAndGlyphs">\n),
    $body, "</g>\n</svg>\n";
