#!/usr/bin/perl -T
# Shows the guestbook (GET) and takes new entries (POST).
use strict;
use warnings;
use Encode qw(decode encode);
use Errno qw(ENOENT);
use Fcntl qw(:flock O_APPEND O_CREAT O_WRONLY);
use POSIX qw(strftime);

my $MAX_BODY    = 32 * 1024;      # a full message with every byte percent-encoded
my $MAX_NAME    = 60;             # characters
my $MAX_MESSAGE = 2000;           # characters
my $MAX_STORE   = 1024 * 1024;    # bytes; it is read as a whole for every page
my $SHOWN       = 50;             # entries on the page

# Found from the program's own place: the site may be installed anywhere, and
# nothing from the request takes part in the path.
my ($here) = __FILE__ =~ m{\A(.*)/[^/]*\z}s;
my $data     = (defined $here ? $here : '.') . '/../data';
my $store    = "$data/entries.txt";
my $template = "$data/templates/page.html";

my $method = defined $ENV{REQUEST_METHOD} ? $ENV{REQUEST_METHOD} : 'GET';

binmode STDIN;
binmode STDOUT;
eval { main(); 1 } or do {
    warn "guestbook: $@";
    fail('500 Internal Server Error', $method eq 'POST'
        ? 'Your entry could not be saved. Please try again later.'
        : 'The guestbook can not be shown at the moment.');
};

sub main {
    fail('404 Not Found', 'There is no such page.')
        if defined $ENV{PATH_INFO} && $ENV{PATH_INFO} ne '';
    return show() if $method eq 'GET' || $method eq 'HEAD';
    return sign() if $method eq 'POST';
    fail('405 Method Not Allowed', 'Only reading and signing are possible.',
        'Allow: GET, HEAD, POST');
}

sub show {
    open my $in, '<:encoding(UTF-8)', $template or die "cannot read $template: $!\n";
    my $page = do { local $/; <$in> };
    my @entries = read_entries();
    my $total   = @entries;
    splice @entries, 0, $total - $SHOWN if $total > $SHOWN;
    my %value = (
        self        => html(self_url()),
        count       => $total,
        max_name    => $MAX_NAME,
        max_message => $MAX_MESSAGE,
        entries     => join '', map {
            my ($time, $name, $message) = map { html($_) } @$_;
            qq{<div class="entry"><b dir="auto">$name</b> <time>$time</time>}
                . qq{<p dir="auto">$message</p></div>\n}
        } reverse @entries,
    );
    # One pass only: a placeholder somebody typed into the form stays text.
    $page =~ s/\{\{(\w+)\}\}/exists $value{$1} ? $value{$1} : ''/ge;
    respond('200 OK', $page);
}

sub sign {
    my %form    = read_form();
    my $name    = clean($form{name});
    my $message = clean($form{message});
    $name =~ s/\s+/ /g;
    fail('400 Bad Request', 'Please fill in both your name and a message.')
        if $name eq '' || $message eq '';
    fail('400 Bad Request', 'Your name or message is too long.')
        if length $name > $MAX_NAME || length $message > $MAX_MESSAGE;
    append_entry(strftime('%Y-%m-%dT%H:%M:%SZ', gmtime), $name, $message);
    # A reload of the page that follows must not sign again.
    respond('303 See Other', '', 'Location: ' . self_url());
}

sub read_form {
    my $type = defined $ENV{CONTENT_TYPE} ? $ENV{CONTENT_TYPE} : '';
    fail('415 Unsupported Media Type', 'Please use the form of the guestbook.')
        if $type !~ m{\Aapplication/x-www-form-urlencoded\s*(?:;|\z)}i;
    my $length = defined $ENV{CONTENT_LENGTH} ? $ENV{CONTENT_LENGTH} : '';
    fail('411 Length Required', 'The length of the entry is missing.')
        if $length !~ /\A[0-9]+\z/;
    fail('413 Content Too Large', 'Your entry is too long.') if $length > $MAX_BODY;
    my $got = read STDIN, (my $body), $length;
    fail('400 Bad Request', 'Your entry arrived incomplete.')
        if !defined $got || $got != $length;
    my %form;
    for my $pair (split /&/, $body) {
        my ($key, $value) = split /=/, $pair, 2;
        next if !defined $value;
        for ($key, $value) {
            tr/+/ /;
            s/%([0-9A-Fa-f]{2})/chr hex $1/ge;
        }
        # Bytes that are no UTF-8 become U+FFFD.
        $form{$key} = decode('UTF-8', $value) if !exists $form{$key};
    }
    return %form;
}

sub clean {
    my ($text) = @_;
    return '' if !defined $text;
    $text =~ s/\r\n?/\n/g;
    $text =~ s/[^\P{Cc}\n\t]//g;
    $text =~ s/\A\s+|\s+\z//g;
    return $text;
}

# The store has one entry per line: time, name and message between tabs, with
# backslash, tab and newline escaped. Lines starting with '#' are comments.
sub read_entries {
    my $in;
    if (!open $in, '<', $store) {
        return if $! == ENOENT;    # nobody has signed yet
        die "cannot read $store: $!\n";
    }
    flock $in, LOCK_SH or die "cannot lock $store: $!\n";
    my %plain = (n => "\n", t => "\t", '\\' => '\\');
    my @entries;
    while (my $line = <$in>) {
        next if $line =~ /\A#/;
        chomp $line;
        my @fields = split /\t/, decode('UTF-8', $line), -1;
        next if @fields != 3;
        s/\\([nt\\])/$plain{$1}/g for @fields;
        push @entries, \@fields;
    }
    return @entries;
}

sub append_entry {
    my @fields = @_;
    my %escape = ("\n" => '\\n', "\t" => '\\t', '\\' => '\\\\');
    s/([\n\t\\])/$escape{$1}/g for @fields;
    my $line = encode('UTF-8', join("\t", @fields) . "\n");

    sysopen my $out, $store, O_WRONLY | O_APPEND | O_CREAT, 0666
        or die "cannot write $store: $!\n";
    flock $out, LOCK_EX or die "cannot lock $store: $!\n";
    my $size = -s $out;
    fail('503 Service Unavailable', 'The guestbook is full.')
        if $size + length $line > $MAX_STORE;
    my $written = syswrite $out, $line;
    if (!defined $written || $written != length $line) {
        my $reason = defined $written ? 'no space left' : $!;
        truncate $out, $size;    # half a line would swallow the next entry
        die "cannot write $store: $reason\n";
    }
    close $out or die "cannot write $store: $!\n";
}

sub self_url {
    my $url = defined $ENV{SCRIPT_NAME} ? $ENV{SCRIPT_NAME} : 'guestbook.pl';
    $url =~ s{\A/+}{/};    # two slashes would make the next word a host name
    $url =~ s{([^A-Za-z0-9_.~/-])}{sprintf '%%%02X', ord $1}ge;
    return $url;
}

sub html {
    my ($text) = @_;
    my %entity = ('&' => '&amp;', '<' => '&lt;', '>' => '&gt;', '"' => '&quot;', "'" => '&#39;');
    $text =~ s/([&<>"'])/$entity{$1}/g;
    return $text;
}

# Does without the template: that may be what is missing.
sub fail {
    my ($status, $text, @headers) = @_;
    respond($status, "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        . "<title>$status</title></head>\n<body><h1>$status</h1><p>$text</p></body></html>\n",
        @headers);
}

sub respond {
    my ($status, $body, @headers) = @_;
    print map { "$_\n" } "Status: $status", 'Content-Type: text/html; charset=utf-8',
        'Cache-Control: no-cache', 'X-Content-Type-Options: nosniff', @headers, '';
    print encode('UTF-8', $body) if $method ne 'HEAD';
    exit 0;
}
