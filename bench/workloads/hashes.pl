# Hashes of arrays and hashes of hashes, built, walked, sorted and torn down:
# the allocation pattern of everyday Perl. Deterministic (run with
# PERL_HASH_SEED=0 PERL_PERTURB_KEYS=0; output is sorted anyway): prints a
# digest of what it built.
# Usage: perl hashes.pl [records]
use strict;
use warnings;

my $n = $ARGV[0] // 60000;
my @words = qw(alder birch cedar dogwood elm fir ginkgo hazel ivy juniper larch maple);
my $x = 4242;
sub rnd { $x = ($x * 1103515245 + 12345) % 2147483648; return $x; }

my $digest = 0;
for my $round (1 .. 2) {
    my (%by_word, %by_pair, %count);
    for my $i (1 .. $n) {
        my $r = rnd();
        my $w = $words[$r % @words];
        my $v = $words[($r >> 7) % @words];
        my $key = sprintf("%s-%05d", $w, $r % 30011);
        push @{ $by_word{$w} }, $key;
        $by_pair{$w}{$v}{$key} = [$i, $r % 1000, "$w:$v"];
        $count{$key}++;
    }
    for my $w (sort keys %by_word) {
        my @sorted = sort @{ $by_word{$w} };
        $digest = ($digest * 31 + scalar(@sorted) + length($sorted[0]) + length($sorted[-1])) % 1000000007;
        for my $v (sort keys %{ $by_pair{$w} }) {
            my $h = $by_pair{$w}{$v};
            my $sum = 0;
            $sum += $h->{$_}[1] for keys %$h;
            $digest = ($digest * 31 + $sum + scalar(keys %$h)) % 1000000007;
        }
    }
    my @top = (sort { $count{$b} <=> $count{$a} || $a cmp $b } keys %count)[0 .. 9];
    $digest = ($digest * 31 + length(join(",", @top))) % 1000000007;
}
printf "hashes: %d x 2, digest %d\n", $n, $digest;
