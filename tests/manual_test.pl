#!/usr/bin/perl
# manual_test.pl BIN_DIR SOURCE_DIR: holds the manual against the programs, both ways. Whatever an
# option, a message, an exit status or a key is, page and program have to agree on it.
use strict;
use warnings;
use File::Temp qw(tempdir);
use POSIX qw(strerror);

my ($bin, $source) = @ARGV;
chdir $source or die "$source: $!\n";
my $failures = 0;

sub fail { print "FAILED: @_\n"; $failures++ }

sub read_file {
    my ($path) = @_;
    open my $in, '<', $path or die "$path: $!\n";
    local $/;
    return scalar <$in>;
}

sub same { # what both sides have; the page's side comes first
    my ($what, $page, $program) = @_;
    my %page    = map { $_ => 1 } @$page;
    my %program = map { $_ => 1 } @$program;
    fail("$what: the page has $_, the program has not") for grep { !$program{$_} } sort keys %page;
    fail("$what: the program has $_, the page has not") for grep { !$page{$_} } sort keys %program;
    fail("$what: nothing found") if !%page && !%program;
}

my %page = map { $_ => read_file("docs/man/$_") }
    qw(app-meta.5 instance-list.5 oxa.conf.5 zendrel-sys.3 zendrel.8 zendrelctl.8);

# --- Form, and pages that others refer to ---------------------------------------------------------

sub check_form {
    my $all = tempdir(CLEANUP => 1);  # side by side, they are found when others refer to them
    symlink "$source/docs/man/$_", "$all/$_" or die "$all: $!\n" for keys %page;
    for my $name (sort keys %page) {
        my $said = `cd $all && mandoc -T lint $name 2>&1`;
        $said =~ s/^mandoc: outdated mandoc\.db .*\n//mg;
        fail("mandoc -T lint: $said") if $? == -1 || $said ne '';
    }
}

# --- Options --------------------------------------------------------------------------------------

sub section { # the text below a heading, up to the next one of its kind
    my ($text, $macro, $heading) = @_;
    my $end = $macro eq 'Ss' ? 'S[sh]' : 'Sh';
    return $text =~ /^\.$macro \Q$heading\E[^\n]*\n(.*?)(?=^\.$end |\z)/ms ? $1 : '';
}

sub listed_options { $_[0] =~ /^\.It Fl -([a-z-]+)/mg }

sub check_zendrelctl_options {
    my $text = $page{'zendrelctl.8'};
    my ($help) = `$bin/zendrelctl --help` =~ /\n\n(.*?)\n\n/s;
    my %words = $help =~ /^  ([a-z-]+) ([A-Z\[\] ]*?)  /mg;
    s/[][]//g, s/^\s+|\s+$//g for values %words;
    my @headings = section($text, 'Sh', 'COMMANDS') =~ /^\.Ss (.*)/mg;
    same('commands of zendrelctl', \@headings, [map { s/ +$//r } map { "$_ $words{$_}" } keys %words]);
    for my $heading (@headings) {
        my ($word, @operands) = split / /, $heading;
        my @page = ('help', listed_options(section($text, 'Ss', $heading)));
        push @page, listed_options(section($text, 'Ss', $_)) for @operands;
        my @program = `$bin/zendrelctl $word --help` =~ /^  (?:-h \[ )?--([a-z-]+)/mg;
        same("options of zendrelctl $word", \@page, \@program);
    }
}

# The names, as "name" or "[name]" when it can be left out, that a handler's function declares.
sub declared_options {
    my ($code, $handler) = @_;
    my ($body) = $code =~ /^int \Q$handler\E\(int argc.*?\{\n(.*?)^\}/ms or die "no $handler\n";
    my @names;
    while ($body =~ /(?:\badd|add_options\(\))\(\s*"([a-z-]+)",\s*(options::required)?/g) {
        push @names, $2 ? $1 : "[$1]";
    }
    return @names;
}

sub check_zendrel_options {
    my $text    = $page{'zendrel.8'};
    my $code    = join '', map { read_file($_) } glob 'app/*.cpp';
    my %handler = $code =~ /\{"--([a-z-]+)", (\w+)\}/g;
    delete $handler{help};
    my %synopsis = map { /^\.Fl -([a-z-]+)\n(.*)/s ? ($1 => $2) : () }
        split /^\.Nm\n/m, section($text, 'Sh', 'SYNOPSIS');
    delete $synopsis{'help | h'};
    same('commands of zendrel', [keys %synopsis], [keys %handler]);
    for my $word (sort keys %handler) {
        my @program = declared_options($code, $handler{$word});
        my @short   = map { /^\.(Op )?Fl -([a-z-]+)/ ? ($1 ? "[$2]" : $2) : () } split /\n/,
            $synopsis{$word} // '';
        same("synopsis of --$word", \@short, \@program);
        my @long = listed_options(section($text, 'Ss', "\\-\\-$word"));
        same("options of --$word", \@long, [map { s/[][]//gr } @program]);
    }
}

# --- Messages -------------------------------------------------------------------------------------

# String literals that are no message: by the statement that they stand in ...
my @not_messages_in = (
    qr/\b(?:kUsage|kSummary|kCommands)\b|usage: zendrelctl|SITE is --vhost-path/,  # help
    qr/\badd\(\s*"[a-z-]+",\s*(?:options::|po::|flag)|\badd\(\)\(|add_options\(\)\(/,
    qr/options_description|CommandLine line/,
    qr/\bkPhpOff\b|\bkCgiOff\b|\bkCgiAll\b|\bkHeader\b|\bkNoHtaccess\b|\bkEngineOff\b/,  # Apache's
    qr/<IfModule|<Directory|RedirectPermanent|AddHandler|FilesMatch|Require all|Handler /,
    qr/REQUEST_FILENAME/,
    qr/\bProgress progress|side_by_side\(/,  # shown on a terminal while it works
    qr/<\?xml |<SECTION |\bkBeginning\b|\bkEnd\b/,
);
# ... by themselves: cures, which are commands; what only other programs that link the libraries can
# meet; what is told in another place of the page.
my $cure = qr/^(?:&& )?(?:a2dismod|a2enmod|apt-get|chmod|chown|echo|groupadd|install|mkdir|mv|sed|useradd
    |usermod|apache2ctl)\b|^go[=-]|\[:space:\]|&&|^put\ into|^give\ the\ site/x;
my $of_other_programs = qr/^fork_execv|^fork\ before\ spawning|^"\)\ failed|^'\ (?:continued|failed)
    |^forkExecvPipes:\ (?:p_setuid|setenv)|^Traceback|^XML\ document\ too\ expensive/x;
my $elsewhere = qr/^ISO-8859|^interrupted$|^undo would end at|^\{?"[a-z]+":/;
my %silent = ('clib/read_configuration.cpp' => 1);  # logs below the level that is shown

sub unescaped {
    my ($text) = @_;
    my %plain = (n => "\n", t => "\t", 0 => "\0");
    $text =~ s/\\(["'\\nt0]|x[0-9a-f]+|[0-7]{3}|.)/exists $plain{$1} ? $plain{$1} : $1/ge;
    return $text;
}

# Joined literals, each with the statement before it. Comments and directives are left out.
sub literals {
    my ($code) = @_;
    $code =~ s{//[^\n]*|/\*.*?\*/|("(?:[^"\\\n]|\\.)*")|\B'(?:[^'\\\n]|\\.)*'}{$1 // ' '}gse;
    $code =~ s/^[ \t]*#.*$//mg;
    my @found;
    while ($code =~ /((?:"(?:[^"\\\n]|\\.)*"\s*)+)/g) {
        my ($quoted, $before) = ($1, substr $code, 0, $-[0]);
        my ($statement) = $before =~ /([^;]*)\z/;
        my $text = join '', map { unescaped($_) } $quoted =~ /"((?:[^"\\\n]|\\.)*)"/g;
        push @found, [$text, $statement];
    }
    return @found;
}

sub fragments { # of a literal: what stands between values, as far as it has words
    my ($text) = @_;
    $text =~ s/%l?[sd]|%\d%/\0/g;
    $text =~ s/^zendrelctl: //;
    return map { s/^\s+|\s+$//gr } grep { /[A-Za-z]{2}/ && / / } split /[\0\n]/, $text;
}

sub plain_mdoc {
    my ($text) = @_;
    my %sign = (aq => "'", ga => '`', dq => '"');
    $text =~ s/\\(?:\((aq|ga|dq)|(e)|&|(-))/$1 ? $sign{$1} : $2 ? '\\' : $3 \/\/ ''/ge;
    return $text =~ s/^"|"$//gr;
}

sub page_messages { # the heads of all lists of diagnostics
    return map { map { plain_mdoc($_) } /^\.It (.*)/mg } $_[0] =~ /^\.Bl -diag\n(.*?)^\.El/msg;
}

# What the system and the libraries say.
my @foreign = (
    (grep { !/^Unknown/ } map { strerror($_) } 1 .. 133),
    "terminate called after throwing an instance of 'std::runtime_error'",
    'is required but missing', 'unrecognised option', 'cannot be specified more than once',
    'is ambiguous and matches', 'the required argument for option', 'is missing',
    'does not take any arguments', 'the argument', 'for option', 'is invalid', 'the option', 'option',
    'std::bad_alloc', 'what():', 'create_directory', 'copy_file', 'write:', '->',
);

sub is_known { # whether a text is made of whole words of the literals
    my ($text, $literals) = @_;
    $text =~ s/^[\s.,:;)('"=]+|[\s.,:;)('"=]+$//g;
    my $said = sub { grep { index($_, $_[0]) >= 0 } @$literals };
    return 1 if $text !~ /\w/ || $said->($text);
    for my $at (reverse 1 .. length($text) - 1) {
        next if substr($text, $at - 1, 2) !~ /^[\s:(]|[\s:)]$/;
        my ($start, $rest) = map { s/^\s+|\s+$//gr } substr($text, 0, $at), substr $text, $at;
        return 1 if $rest ne '' && $said->($start) && is_known($rest, $literals);
    }
    return 0;
}

sub check_messages { # PAGES, FOLDERS: each of the one against all of the other
    my ($names, $folders) = @_;
    my %messages = map { $_ => [page_messages($page{$_})] } @$names;
    my @all = map { @$_ } values %messages;
    my @known = @foreign;
    for my $file (map { glob "$_/*.cpp $_/*.h" } @$folders) {
        for (literals(read_file($file))) {
            my ($text, $statement) = @$_;
            push @known, $text =~ s/%l?[sd]|%\d%/.../gr;
            next if $silent{$file} || grep { "$statement$text" =~ $_ } @not_messages_in;
            for my $fragment (fragments($text)) {
                next if $fragment =~ /$cure|$of_other_programs|$elsewhere/;
                next if grep { index($_, $fragment) >= 0 } @all;
                fail("$file says \"$fragment\", which no page has");
            }
        }
    }
    for my $name (@$names) {
        for my $message (@{$messages{$name}}) {
            fail("$name has \"$message\", but nothing says \"$_\"")
                for grep { !is_known($_, \@known) } split /\.\.\./, $message;
        }
    }
}

# The words that lines of "verify" and "plan" begin with, behind the instance's name if there is one.
sub check_words {
    my $commands = section($page{'zendrelctl.8'}, 'Sh', 'COMMANDS');
    my @differences = (read_file('ctl/Manifest.cpp') =~ /\badd\("(\w+)"/g,
        read_file('ctl/verify.cpp') =~ /add\(\{record\.name, "(\w+)"/g);
    same('words of verify', [section($commands, 'Ss', 'verify SITE') =~ /^\.It Li (\w+)/mg], \@differences);
    my $plan = read_file('ctl/plan.cpp');
    my @steps = ($plan =~ /^    \{"(\w+)", "/mg, $plan =~ /(?:add\(\{|\(rows, )"([a-z ]+)"/g);
    same('words of plan', [section($commands, 'Ss', 'plan PACKAGE SITE') =~ /^\.It Cm ([a-z ]+?)(?: Ar|$)/mg],
        \@steps);
}

# --- Statuses, keys -------------------------------------------------------------------------------

sub page_statuses { section($_[0], 'Sh', 'EXIT STATUS') =~ /^\.It (\d+)$/mg }

sub check_statuses {
    my @ours = read_file('ctl/commands.h') =~ /constexpr int k\w+ = (\d+);/g;
    same('statuses of zendrelctl', [page_statuses($page{'zendrelctl.8'})], \@ours);
    my $code = join '', map { read_file("app/$_.cpp") } qw(zendrel application fsascript webserverconfig);
    my @found = map { $_ & 255 } $code =~ /(?:return|exit\()\s*(-?\d)\)?;/g;
    push @found, 134 if $code =~ /std::terminate\(\)/;
    same('statuses of zendrel', [page_statuses($page{'zendrel.8'})], \@found);
}

sub check_keys {
    my $code = join '', map { read_file($_) } glob 'app/*.cpp ctl/*.cpp';
    my @used = $code =~ /oxaConfGetDefault(?:ByIndex)?\("?(?:OXA_)?([A-Z_]+)"?\)/g;
    my %default = read_file('share/oxa.conf') =~ /^#([A-Z]\S+) (\S+)$/mg;
    my %told = $page{'oxa.conf.5'} =~ /^\.It Ev (\w+) Pq Pa (\S+)/mg;
    same('keys', [map { "$_ $told{$_}" } keys %told], [map { "$_ $default{$_}" } @used]);
}

check_form();
check_zendrelctl_options();
check_zendrel_options();
check_messages(['zendrel.8', 'zendrelctl.8'], [qw(app common clib ctl)]);
check_messages(['zendrel-sys.3'], [qw(sys)]);
check_words();
check_statuses();
check_keys();
exit($failures == 0 ? 0 : 1);
