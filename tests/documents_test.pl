#!/usr/bin/perl
# documents_test.pl SOURCE_DIR: every relative link in a document leads to a file, or to a heading;
# the source map has every source.
use strict;
use warnings;

chdir $ARGV[0] or die "$ARGV[0]: $!\n";
my $failures = 0;

sub fail { print "FAILED: @_\n"; $failures++ }

sub text_of { # without blocks and code, in which nothing is a link or a heading
    my ($path) = @_;
    open my $in, '<', $path or die "$path: $!\n";
    my $text = do { local $/; <$in> };
    $text =~ s/^```.*?^```$//msg;
    return $text;
}

sub anchors_of { # as the headings of a document get them
    my (%anchor, %seen);
    for my $heading (text_of($_[0]) =~ /^#+ +(.+?) *$/mg) {
        my $name = lc $heading =~ s/\[([^\]]*)\]\([^)]*\)/$1/gr;
        $name =~ s/[^\w\- ]//g;
        $name =~ tr/ /-/;
        $anchor{$seen{$name}++ ? "$name-" . ($seen{$name} - 1) : $name} = 1;
    }
    return \%anchor;
}

for my $document (glob '*.md docs/*.md ansible/*.md') {
    my ($folder) = $document =~ m{^(.*/)} ? $1 : '';
    my $text = text_of($document) =~ s/`[^`\n]*`/`/gr;
    for my $link ($text =~ /\]\(([^)\s]+)\)/g) {
        next if $link =~ m{^[a-z]+:};
        my ($file, $anchor) = split /#/, $link, 2;
        my $path = $file eq '' ? $document : "$folder$file";
        my $problem = !-e $path ? 'leads nowhere'
            : defined $anchor && !anchors_of($path)->{$anchor} ? 'has no such heading'
            : next;
        fail("$document: $link $problem");
    }
}
my ($map) = text_of('docs/architecture.md') =~ /^## Source map\n(.*)/ms;
for my $path (map { glob "$_/*.cpp $_/*.h $_/*.in" } qw(app clib common ctl sys)) {
    my ($name) = $path =~ m{/(\w+)};
    fail("$path is not in the source map") if $map !~ /`(?:\w+\/)?$name\b/;
}
open my $readme, '<', 'README.md' or die "README.md: $!\n";
my $lines = () = <$readme>;
fail("README.md has $lines lines, more than 200") if $lines > 200;
exit($failures == 0 ? 0 : 1);
