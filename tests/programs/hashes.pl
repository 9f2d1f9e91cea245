# Hashes, arrays, regular expressions and string building.
use strict;
use warnings;

my (%count, @lines);
my $seed = 11;
for my $i (1 .. 300000) {
    $seed = $seed * 16807 % 2147483647;
    my $word = join '', map { chr(97 + ($seed >> $_) % 7) } 0 .. $seed % 9;
    $count{$word}++;
    push @lines, "$i:$word" if $i % 7 == 0;
}
my @top = (sort { $count{$b} <=> $count{$a} || $a cmp $b } keys %count)[0 .. 9];
print "$_ $count{$_}\n" for @top;
my $text = join "\n", @lines;
my $matches = () = $text =~ /:(a\w*b)\b/g;
(my $upper = $text) =~ s/([aeiou])/uc $1/ge;
splice @lines, 0, 10000;
print scalar(keys %count), " ", length($text), " $matches ", length($upper), " ", scalar(@lines), "\n";
