#!/usr/bin/perl
# report.pl RESULTS [DOCUMENT PLOT]: tells what the figures of run.sh mean. With a document, also
# puts that between its marker comments and draws the plot. Ends with 1 when a target is missed.
use strict;
use warnings;
use utf8;
use List::Util qw(max min);
use POSIX qw(ceil floor);

binmode STDOUT, ':utf8';
my ($results, $document, $plot) = @ARGV;
my @starters = ('TExec', 'posix_spawn', 'system', 'TExec, redirected');
my @tools = ('extract', 'cp -r', 'rsync -a', 'delete', 'rm -rf');
my (%figures, %sizes, %places, %memory, @info);

open my $in, '<', $results or die "$results: $!\n";
while (<$in>) {
    chomp;
    my ($kind, $tool, $place, $size, $value) = split /\t/;
    push(@info, "- $tool: $place\n"), next if $kind eq 'info';
    die "$_: not a figure\n" unless defined $value && $value =~ /^\d+$/;
    push @{$figures{$kind, $tool, $place, $size}}, $value;
    $kind eq 'spawn' ? ($memory{$place} = 1) : ($sizes{$size} = $places{$place} = 1);
}
my @large = grep { delete $sizes{$_} } 'large';
my @sizes = sort { $a <=> $b } keys %sizes;
my ($few, $many) = @sizes[0, -1];
my ($disk, @others) = sort keys %places;    # ext4 comes before tmpfs

sub all { return sort { $a <=> $b } @{$figures{join $;, @_} // die "no figures: @_\n"} }
sub median { my @sorted = all(@_); return ($sorted[$#sorted / 2] + $sorted[@sorted / 2]) / 2 }
sub seconds { return median('time', @_) / 1e6 }
sub thousands { return scalar reverse join ',', unpack '(A3)*', reverse $_[0] }
sub tree { return $_[0] eq 'large' ? '1 GiB in 4 files' : thousands($_[0]) . ' files' }

# --- The tables -----------------------------------------------------------------------------------

# Lines up the columns, so that a table also reads well as a text.
sub table {
    my @rows = @_;
    my @width = map { my $column = $_; max map { length $_->[$column] } @rows } 0 .. $#{$rows[0]};
    splice @rows, 1, 0, [map { '-' x $_ } @width];
    my $format = '| ' . join(' | ', map { "%-${_}s" } @width) . " |\n";
    return join '', map { sprintf $format, @$_ } @rows;
}

my @targets = (['What', 'Measured', 'Against', 'Ratio', 'At most', 'Target']);
my $missed = 0;

sub target {
    my ($what, $measured, $against, $ratio, $limit, $value) = @_;
    my $verdict = !$limit ? '–' : ($value // $ratio) <= $limit ? 'met' : 'missed';
    $missed += $verdict eq 'missed';
    push @targets, [$what, $measured, $against || '–', $ratio ? sprintf('%.2f', $ratio) : '–', $limit || '–', $verdict];
}

sub compare {
    my ($tool, $other, $place, $size, $limit) = @_;
    my ($own, $theirs) = map { seconds($_, $place, $size) } $tool, $other;
    target("$tool, " . tree($size) . ", $place", sprintf('%.3f s', $own),
        sprintf('%s %.3f s', $other, $theirs), $own / $theirs, $limit);
}

for my $place ($disk, @others) {
    for my $size (@sizes, $place eq $disk ? @large : ()) {
        my $copy = $place ne $disk || $size eq '1000' ? 0 : $size eq 'large' ? '1.0' : 0.9;
        compare('extract', 'cp -r', $place, $size, $copy);
        compare('extract', 'rsync -a', $place, $size, 0);
        compare('delete', 'rm -rf', $place, $size, $place eq 'tmpfs' ? 1.3 : 1.1);
    }
}
for my $tool ('extract', 'delete') {
    my ($at_few, $at_many) = map { seconds($tool, $disk, $_) / $_ * 1e6 } $few, $many;
    target("$tool, time per file at " . thousands($many), sprintf('%.1f µs', $at_many),
        sprintf('%.1f µs at %s', $at_few, thousands($few)), $at_many / $at_few, 1.3);
    my $peak = median('peak', $tool, $disk, $many) / 1024;
    target("$tool, peak memory at " . tree($many), sprintf('%.1f MiB', $peak), '', 0, 120, $peak);
}
my $listed = median('entries', 'package', $disk, 10000);
for (['extract', 'file', '8.0'], ['cp -r', 'file'], ['rsync -a', 'file'], ['delete', 'entry', 1.3], ['rm -rf', 'entry']) {
    my ($tool, $each, $limit) = @$_;
    my $calls = median('calls', $tool, $disk, 10000) / ($each eq 'file' ? 10000 : $listed);
    target("$tool, system calls per $each", sprintf('%.2f', $calls), '', 0, $limit, $calls);
}

my @medians = (['File system', 'Tree', @tools]);
for my $place ($disk, @others) {
    for my $size (@sizes, $place eq $disk ? @large : ()) {
        push @medians, [$place, tree($size), map {
            my @sorted = map { $_ / 1e6 } all('time', $_, $place, $size);
            sprintf '%.3f (%.3f–%.3f)', seconds($_, $place, $size), @sorted[0, -1];
        } @tools];
    }
}
my $report = join "\n", join('', @info), table(@targets), "Seconds, as median (least–most):\n", table(@medians);
my @starts = (['Memory touched', @starters]);
for my $touched (sort { $a <=> $b } keys %memory) {
    push @starts, ["$touched MiB", map {
        sprintf '%d (%d–%d)', median('spawn', $_, $touched, 'start'), (all('spawn', $_, $touched, 'start'))[0, -1];
    } @starters];
}
my $starts = %memory ? "Microseconds a start, as median (least–most):\n\n" . table(@starts) : '';
print "$report\n$starts\ntargets missed: $missed\n";

# --- The plot -------------------------------------------------------------------------------------

use constant {LEFT => 70, RIGHT => 620, TOP => 50, BOTTOM => 410};

sub draw {
    my %colour = ('extract' => '#d55e00', 'cp -r' => '#0072b2', 'rsync -a' => '#8a4f7d', 'delete' => '#00805c', 'rm -rf' => '#6b6b6b');
    my %seconds = map { my $tool = $_; ($tool => [map { seconds($tool, $disk, $_) } @sizes]) } @tools;
    my @exponents = map { log($_) / log 10 } map { @$_ } values %seconds;
    my ($low, $high) = (floor(min @exponents), ceil(max @exponents));
    my $x = sub { LEFT + 20 + (RIGHT - LEFT - 40) * log($_[0] / $few) / log($many / $few) };
    my $y = sub { BOTTOM - (BOTTOM - TOP) * (log($_[0]) / log(10) - $low) / ($high - $low) };
    my $svg = qq(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 720 470" font-family="sans-serif" font-size="13">\n)
        . qq(<rect width="720" height="470" rx="6" fill="#fff"/>\n);
    my $line = sub { $svg .= sprintf qq(<path d="M%.1f %.1fL%.1f %.1f" stroke="%s"/>\n), @_ };
    my $text = sub { $svg .= sprintf qq(<text x="%.1f" y="%.1f" text-anchor="%s" fill="%s">%s</text>\n), @_ };
    for my $decade ($low .. $high) {
        my $value = 10**$decade;
        for (2 .. 9) { $line->(LEFT, $y->($_ * $value), RIGHT, $y->($_ * $value), '#ededed') if $decade < $high }
        $line->(LEFT, $y->($value), RIGHT, $y->($value), '#c0c0c0');
        $text->(LEFT - 8, $y->($value) + 4, 'end', '#333', sprintf '%.*f s', max(-$decade, 0), $value);
    }
    for my $size (@sizes) {
        $line->($x->($size), TOP, $x->($size), BOTTOM, '#c0c0c0');
        $text->($x->($size), BOTTOM + 20, 'middle', '#333', thousands($size));
    }
    $text->((LEFT + RIGHT) / 2, BOTTOM + 42, 'middle', '#333', 'files');
    $text->(LEFT, TOP - 20, 'start', '#111', "Time against number of files, medians on $disk");
    my $label = 0;    # pushed down where it would cover the one above
    for my $tool (sort { $seconds{$b}[-1] <=> $seconds{$a}[-1] } @tools) {
        my @points = map { [$x->($sizes[$_]), $y->($seconds{$tool}[$_])] } 0 .. $#sizes;
        $svg .= sprintf qq(<polyline fill="none" stroke="%s" stroke-width="2" points="%s"/>\n), $colour{$tool},
            join ' ', map { sprintf '%.1f,%.1f', @$_ } @points;
        $svg .= sprintf qq(<circle cx="%.1f" cy="%.1f" r="3.5" fill="%s"/>\n), @$_, $colour{$tool} for @points;
        $label = max $points[-1][1], $label + 16;
        $text->(RIGHT + 8, $label + 4, 'start', $colour{$tool}, $tool);
    }
    return "$svg</svg>\n";
}

sub write_file {
    my ($path, $content) = @_;
    open my $out, '>:utf8', $path or die "$path: $!\n";
    print {$out} $content and close $out or die "$path: $!\n";
}

if ($document) {
    open my $old, '<:utf8', $document or die "$document: $!\n";
    my $content = do { local $/; <$old> };
    my %parts = (results => $report, %memory ? (starts => $starts) : ());
    for my $part (sort keys %parts) {
        $content =~ s/(<!-- $part -->\n).*(<!-- end of $part -->)/$1\n$parts{$part}\n$2/s or die "$document: no $part\n";
    }
    write_file($document, $content);
    write_file($plot, draw());
}
exit($missed ? 1 : 0);
