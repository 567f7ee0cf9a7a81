#!/usr/bin/perl
# console.pl DOCUMENT[#HEADING]...: runs the blocks that a document marks as ```console, in one
# shell, as they stand, and compares what they print with what is shown there.
#
# In a block, a line "# COMMAND" is a command; it goes on after a backslash at its end and, with a
# here-document, up to its last line. What follows is its output: a line "..." stands for any number
# of lines, "..." in a line for any text. Where nothing is shown, nothing is compared, but the command
# has to end with 0, unless the next one is "echo $?".
use strict;
use warnings;
use IPC::Open2;
use Time::HiRes qw(sleep);

sub commands { # of a document, or of one of its sections, each with what it prints
    my ($path, $heading) = split /#/, $_[0], 2;
    open my $in, '<', $path or die "$path: $!\n";
    my $text = do { local $/; <$in> };
    ($text) = $text =~ /^##+ \Q$heading\E\n(.*?)(?=^##|\z)/ms if defined $heading;
    my @commands;
    for ($text =~ /^```console\n(.*?)^```$/msg) {
        while (/\G# ((?:.*\\\n)*(?:.*<<-?'?(\w+)'?.*\n(?:.*\n)*?\g2\n|.*\n))((?:(?!# ).*\n)*)/g) {
            push @commands, {place => $path, text => $1, shown => $3};
        }
    }
    die "$_[0]: no console blocks\n" if !@commands;
    return @commands;
}

sub pattern { # that output has to match
    my ($shown) = @_;
    my $pattern = join '', map { $_ eq "...\n" ? '(?:.*\n)*' : quotemeta($_) =~ s/(?:\\\.){3}/.*/gr }
        $shown =~ /.*\n/g;
    return qr/\A$pattern\z/;
}

my $pid = open2(my $from, my $to, 'bash', '--norc', '-c', <<'END') or die "bash: $!\n";
exec 2>&1
status=0
while IFS= read -r -d '' command; do
    { (exit $status); eval "$command"; } </dev/null
    status=$?
    printf '\0%d\0' "$status"
done
END
$to->autoflush(1);
binmode $from;

sub run { # in the shell; its output and status
    my ($text) = @_;
    local $/ = "\0";
    print $to "$text\0";
    my ($output, $status) = map { scalar <$from> // die "the shell has ended\n" } 1 .. 2;
    chop($output, $status);
    $output =~ s/[ \t]+$//mg;  # documents have none there
    return ($output, $status);
}

my $failures = 0;
my @commands = map { commands($_) } @ARGV;
for my $at (0 .. $#commands) {
    my ($place, $text, $shown) = @{$commands[$at]}{qw(place text shown)};
    my ($output, $status) = run($text);
    # A server that was told to read its configuration again takes a moment.
    for (my $try = 0; $text =~ /^curl / && $try < 100 && $output !~ pattern($shown); $try++) {
        sleep 0.1;
        ($output, $status) = run($text);
    }
    my $asked = $at < $#commands && $commands[$at + 1]{text} eq "echo \$?\n";
    next if $shown eq '' ? $status == 0 || $asked : $output =~ pattern($shown);
    print "FAILED: $place, status $status\n# $text--- shown\n$shown--- printed\n$output---\n";
    $failures++;
}
close $to;
waitpid $pid, 0;
exit($failures == 0 ? 0 : 1);
