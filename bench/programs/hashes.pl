# Hashes of arrays, regular expressions, split and join, sorting.
# Self-contained: the data comes from a fixed linear congruential generator.
# Run: perl hashes.pl N   (N = thousands of lines; default 60)
use strict;
use warnings;

my $scale = $ARGV[0] // 60;
my $seed = 11;
sub draw {
    my ($bound) = @_;
    $seed = ($seed * 1103515245 + 12345) % 2147483648;
    return int($seed / 65536) % $bound;
}

my @syllables = qw(ka lo mi ne ru sa ti vo we xu ya zo);
my (%index, %lengths, @lines);
for my $n (1 .. $scale * 1000) {
    my @words = map { join '', map { $syllables[draw(scalar @syllables)] } 1 .. 1 + draw(4) } 1 .. 3 + draw(10);
    my $line = join ' ', @words;
    push @lines, $line if $n % 50 == 0;
    for my $word (@words) {
        push @{ $index{$word} }, $n if @{ $index{$word} // [] } < 64;
        $lengths{ length $word }++;
    }
    (my $vowels = $line) =~ s/[^aeiou]//g;
    $lengths{vowels} += length $vowels;
}
my @ranked = sort { @{ $index{$b} } <=> @{ $index{$a} } or $a cmp $b } keys %index;
my $text = join "\n", @lines;
my $matches = () = $text =~ /\b(\w)\w*\1\b/g;
my $checksum = 0;
$checksum = ($checksum * 33 + length($_) + scalar @{ $index{$_} }) % 1000000007 for @ranked;
print "$_ @{[ scalar @{ $index{$_} } ]}\n" for @ranked[0 .. 9];
print "words ", scalar @ranked, " matches $matches vowels $lengths{vowels} checksum $checksum\n";
