#!/usr/bin/perl
# report.pl RESULTS [DOCUMENT PLOT]: tells what the figures of run.sh mean. With a document, also
# puts that between its marker comments and draws the plot. Ends with 1 when a target is missed.
use strict;
use warnings;
use utf8;
use List::Util qw(max);
use POSIX qw(ceil);

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
my ($is_delayed) = delete $places{delayed};
my @special = grep { delete $sizes{$_} } '10000-deep', 'large';
my @sizes = sort { $a <=> $b } keys %sizes;
my ($few, $many) = (1000, $sizes[-1]);
my ($disk, @others) = sort keys %places;    # ext4 comes before tmpfs
my @counts = grep { $figures{'time', "extract/$_", $disk, 10000} } 1, 2, 4, 8;

sub all { return sort { $a <=> $b } @{$figures{join $;, @_} // die "no figures: @_\n"} }
sub median { my @sorted = all(@_); return ($sorted[$#sorted / 2] + $sorted[@sorted / 2]) / 2 }
sub seconds { return median('time', @_) / 1e6 }
sub thousands { return scalar reverse join ',', unpack '(A3)*', reverse $_[0] }
sub tree {
    return '1 GiB in 4 files' if $_[0] eq 'large';
    return $_[0] =~ /(.*)-deep/ ? thousands($1) . ' files, deep' : thousands($_[0]) . ' files';
}

# The measured trees of a place. Large files are copied on the disk only.
sub trees { my ($place) = @_; return (@sizes, grep { $_ ne 'large' || $place eq $disk } @special) }

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

# The most that a run may take of what the usual tool takes.
my %copy_limits = (25 => '1.0', 10000 => '0.50', '10000-deep' => '0.50', 100000 => '0.50', large => '0.75');
my %removal_limits = (1000 => '1.0', 10000 => '0.75', '10000-deep' => '0.75', 100000 => '0.75', large => '1.1');

for my $place ($disk, @others) {
    for my $size (trees($place)) {
        compare('extract', 'cp -r', $place, $size, $copy_limits{$size});
        compare('extract', 'rsync -a', $place, $size, 0);
        compare('delete', 'rm -rf', $place, $size, $size eq 1000 && $place eq 'tmpfs' ? '1.1' : $removal_limits{$size});
    }
}
compare('extract', 'cp -r', 'delayed', 10000, 0.25) if $is_delayed;
if (@counts) {
    for (map { my $tool = $_; map { [$tool, $_] } $disk, @others } 'extract', 'delete') {
        my ($tool, $place) = @$_;
        my ($own, $one) = map { median('cpu', $_, $place, 10000) / 1e6 } $tool, "$tool/1";
        target("$tool, processor time of " . tree(10000) . ", $place", sprintf('%.3f s', $own),
            sprintf('1 thread %.3f s', $one), $own / $one, 1.15);
    }
}
for my $tool ('extract', 'delete') {
    my ($at_few, $at_many) = map { seconds($tool, $disk, $_) / $_ * 1e6 } $few, $many;
    target("$tool, time per file at " . thousands($many), sprintf('%.1f µs', $at_many),
        sprintf('%.1f µs at %s', $at_few, thousands($few)), $at_many / $at_few, 1.2);
    my $peak = median('peak', $tool, $disk, $many) / 1024;
    target("$tool, peak memory at " . tree($many), sprintf('%.1f MiB', $peak), '', 0, 64, $peak);
}
my $listed = median('entries', 'package', $disk, 10000);
for (['extract', 'file', '8.0'], ['cp -r', 'file'], ['rsync -a', 'file'], ['delete', 'entry', 1.3], ['rm -rf', 'entry']) {
    my ($tool, $each, $limit) = @$_;
    my $calls = median('calls', $tool, $disk, 10000) / ($each eq 'file' ? 10000 : $listed);
    target("$tool, system calls per $each", sprintf('%.2f', $calls), '', 0, $limit, $calls);
}

my @medians = (['File system', 'Tree', @tools]);
for my $place ($disk, @others) {
    for my $size (trees($place)) {
        push @medians, [$place, tree($size), map {
            my @sorted = map { $_ / 1e6 } all('time', $_, $place, $size);
            sprintf '%.3f (%.3f–%.3f)', seconds($_, $place, $size), @sorted[0, -1];
        } @tools];
    }
}
my @by_count = (['Against', 'File system', map { "$_ thread" . ($_ > 1 && 's') } @counts]);
for (['extract', 'cp -r'], ['delete', 'rm -rf']) {
    my ($own, $other) = @$_;
    for my $place ($disk, @others) {
        push @by_count, ["$own, $other", $place, map { sprintf '%.2f', seconds("$own/$_", $place, 10000) / seconds($other, $place, 10000) } @counts];
    }
}
my $report = join "\n", join('', @info), table(@targets), "Seconds, as median (least–most):\n", table(@medians),
    @counts ? ("Ratios at 10,000 files by the number of threads:\n", table(@by_count)) : ();
my @starts = (['Memory touched', @starters]);
for my $touched (sort { $a <=> $b } keys %memory) {
    push @starts, ["$touched MiB", map {
        sprintf '%d (%d–%d)', median('spawn', $_, $touched, 'start'), (all('spawn', $_, $touched, 'start'))[0, -1];
    } @starters];
}
my $starts = %memory ? "Microseconds a start, as median (least–most):\n\n" . table(@starts) : '';
print "$report\n$starts\ntargets missed: $missed\n";

# --- The plot -------------------------------------------------------------------------------------

use constant {PANEL => 300, TOP => 60, BOTTOM => 380};

# Two panels with one scale of ratios: over the number of files, and over the number of threads.
sub draw {
    my @pairs = (['extract', 'cp -r', '#d55e00'], ['delete', 'rm -rf', '#0072b2']);
    my $svg = qq(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 880 450" font-family="sans-serif" font-size="13">\n)
        . qq(<rect width="880" height="450" rx="6" fill="#fff"/>\n);
    my $line = sub { $svg .= sprintf qq(<path d="M%.1f %.1fL%.1f %.1f" stroke="%s"/>\n), @_ };
    my $text = sub { $svg .= sprintf qq(<text x="%.1f" y="%.1f" text-anchor="%s" fill="%s">%s</text>\n), @_ };
    my $panel = sub {
        my ($left, $title, $axis, $values, $tool) = @_;
        my $x = sub { $left + 15 + (PANEL - 30) * log($_[0] / $values->[0]) / log($values->[-1] / $values->[0]) };
        my @curves;
        for my $pair (@pairs) {
            my ($own, $other, $colour) = @$pair;
            for my $place ($disk, @others) {
                push @curves, ["$own, $place", $colour, $place eq $disk ? '' : ' stroke-dasharray="6 4"',
                    [map { my $at = $tool ? 10000 : $_; seconds($tool ? "$own/$_" : $own, $place, $at) / seconds($other, $place, $at) } @$values]];
            }
        }
        my $high = ceil(5 * max map { @{$_->[3]} } @curves) / 5;
        my $y = sub { BOTTOM - (BOTTOM - TOP) * $_[0] / $high };
        for (my $mark = 0; $mark <= $high + 0.01; $mark += 0.2) {
            $line->($left, $y->($mark), $left + PANEL, $y->($mark), abs($mark - 1) < 0.01 ? '#333' : '#ddd');
            $text->($left - 8, $y->($mark) + 4, 'end', '#333', sprintf '%.1f', $mark);
        }
        $text->($x->($_), BOTTOM + 20, 'middle', '#333', thousands($_)) for @$values;
        $text->($left + PANEL / 2, BOTTOM + 42, 'middle', '#333', $axis);
        $text->($left, TOP - 20, 'start', '#111', $title);
        my $label = 0;    # pushed down where it would cover the one above
        for my $curve (sort { $b->[3][-1] <=> $a->[3][-1] } @curves) {
            my ($name, $colour, $dashes, $ratios) = @$curve;
            my @points = map { [$x->($values->[$_]), $y->($ratios->[$_])] } 0 .. $#$values;
            $svg .= sprintf qq(<polyline fill="none" stroke="%s" stroke-width="2"%s points="%s"/>\n), $colour, $dashes,
                join ' ', map { sprintf '%.1f,%.1f', @$_ } @points;
            $svg .= sprintf qq(<circle cx="%.1f" cy="%.1f" r="3.5" fill="%s"/>\n), @$_, $colour for @points;
            $label = max $points[-1][1], $label + 16;
            $text->($left + PANEL + 4, $label + 4, 'start', $colour, $name);
        }
    };
    $panel->(45, 'Time against cp -r and rm -rf', 'files', \@sizes, 0);
    $panel->(480, 'The same, 10,000 files', 'threads', \@counts, 1) if @counts;
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
