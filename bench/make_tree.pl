#!/usr/bin/perl
# make_tree.pl PACKAGE FILES|FILES-deep|large: makes a package whose htdocs/ holds that many small files in
# a tree of two levels with 50 to a directory, or of up to ten levels with 14, or 1 GiB in four files. It
# comes out the same everywhere: the generator is seeded and is Perl's own.
use strict;
use warnings;

use constant {FILES_PER_DIR => 50, DIRS_PER_DIR => 40, FILES_PER_DEEP => 14, DEEPEST => 10, MEDIAN => 2048, SPREAD => 1.1, MAX => 65536};

my ($package, $files) = @ARGV;
my $htdocs = "$package/htdocs";
srand 20;
umask 022;
my $content = join '', map { pack 'L', rand 2**32 } 1 .. 2**18;
my @extensions = qw(php html js css png);

sub put {
    my ($path, $piece, $times) = @_;
    open my $out, '>', $path or die "$path: $!\n";
    print {$out} $piece or die "$path: $!\n" for 1 .. $times;
    close $out or die "$path: $!\n";
}

sub make_dir { mkdir $_[0] or die "$_[0]: $!\n" }

# As in a web application: most files have a few KiB, some many times that.
sub size {
    my $normal = sqrt(-2 * log(1 - rand)) * cos(6.2831853 * rand);
    my $size = int(MEDIAN * exp(SPREAD * $normal));
    return $size < MAX ? $size : MAX;
}

sub put_file {
    my ($directory, $index) = @_;
    my $name = sprintf 'page-%06d.%s', $index, $extensions[rand @extensions];
    put("$directory/$name", substr($content, rand MAX, size()), 1);
}

# Below any directory that is not at the deepest level yet.
my @parents = [$htdocs, 1];
my $deep;

sub put_deep {
    my ($index) = @_;
    if ($index % FILES_PER_DEEP == 0) {
        my ($parent, $level) = @{$parents[rand @parents]};
        make_dir($deep = sprintf '%s/d%d', $parent, $index / FILES_PER_DEEP);
        push @parents, [$deep, $level + 1] if $level + 1 < DEEPEST;
    }
    put_file($deep, $index);
}

sub put_small {
    my ($index) = @_;
    my $module = sprintf "$htdocs/module-%02d", $index / (FILES_PER_DIR * DIRS_PER_DIR);
    my $part = sprintf "$module/part-%02d", $index / FILES_PER_DIR % DIRS_PER_DIR;
    make_dir($module) if $index % (FILES_PER_DIR * DIRS_PER_DIR) == 0;
    make_dir($part) if $index % FILES_PER_DIR == 0;
    put_file($part, $index);
}

make_dir($package);
make_dir($htdocs);
put("$package/APP-META.xml", <<'XML', 1);
<application xmlns="http://veska.example/ns/1" version="1.0">
  <name>bench</name><version>1.0</version><release>1</release>
  <mapping url="/" path="htdocs"/>
</application>
XML
if ($files eq 'large') {
    put("$htdocs/disc-$_.iso", $content, 256) for 1 .. 4;
} else {
    my ($count, $is_deep) = $files =~ /^(\d+)(-deep)?$/ or die "$files: neither a number nor large\n";
    $is_deep ? put_deep($_) : put_small($_) for 0 .. $count - 1;
}
