#!/usr/bin/perl
# browser_test.pl: visits the demonstration's site in Chromium, as a person would: the start page
# opens with all its links, the guestbook is signed by its form, and shows the entry. Needs root,
# chromium and chromium-driver.
use strict;
use warnings;
use File::Temp qw(tempdir);
use HTTP::Tiny;
use IO::Socket::INET;
use JSON::PP qw(decode_json encode_json);
use Time::HiRes qw(sleep);

my $text = "Hello <b>alice</b> & all";
my ($http, $home) = (HTTP::Tiny->new(timeout => 30), tempdir(CLEANUP => 1));
my @children;
END {
    my $status = $?;
    for my $child (reverse @children) {
        kill TERM => $child;
        waitpid $child, 0;
    }
    $? = $status;
}

sub serve { # PATH COMMAND...: starts it at a free port; its address when that path is answered there
    my ($path, @command) = @_;
    my $socket = IO::Socket::INET->new(Listen => 1, LocalAddr => '127.0.0.1') or die "no port: $!\n";
    my $port = $socket->sockport;
    close $socket;
    my ($address, $log, $child) = ("http://127.0.0.1:$port", "$home/$port.log", fork // die "fork: $!\n");
    if ($child == 0) {
        @children = ();
        open STDOUT, '>', $log or die "$log: $!\n";
        open STDERR, '>&', \*STDOUT;
        exec @command, "--port=$port";
    }
    push @children, $child;
    for (1 .. 3000) {
        return $address if $http->get("$address$path")->{success};
        last if waitpid($child, 1) != 0;  # WNOHANG
        sleep 0.2;
    }
    die "$command[0] does not answer:\n" . `tail -n 20 $log`;
}

my $site = serve('/', './demo.sh', '--serve');
my $driver = serve('/status', 'chromedriver');

sub ask { # METHOD PATH [BODY]: what the browser answers
    my ($method, $path, $body) = @_;
    my %options = $body ? (content => encode_json($body)) : ();
    my $response = $http->request($method, "$driver/session$path", \%options);
    die "$method $path: $response->{content}\n" if !$response->{success};
    return decode_json($response->{content})->{value};
}

my %chrome = (args => ['--headless', '--no-sandbox', '--disable-gpu', "--user-data-dir=$home/profile"]);
my $session = '/' . ask(POST => '', {capabilities => {alwaysMatch => {'goog:chromeOptions' => \%chrome}}})->{sessionId};

sub element { # HOW WHAT METHOD ACTION [BODY]: of one for which a page gets time to load
    my ($how, $what, $method, $action, $body) = @_;
    my ($id) = values %{ask(POST => "$session/element", {using => $how, value => $what})};
    return ask($method => "$session/element/$id/$action", $body);
}
sub text_of { element('css selector', $_[0], GET => 'text') }
sub type_in { element('css selector', $_[0], POST => 'value', {text => $_[1]}) }
sub click   { element(@_, POST => 'click', {dummy => 1}) }
sub expect  { my ($got, $wanted, $what) = @_; $got =~ $wanted or die "$what: $got\n"; print "$what\n" }

ask(POST => "$session/timeouts", {implicit => 10_000});
ask(POST => "$session/url", {url => "$site/"});
expect(text_of('h1'), qr/^Welcome$/, 'the start page opens');
my $links = join ' ', map { ask(GET => "$session/element/" . (values %$_)[0] . '/attribute/href') }
    @{ask(POST => "$session/elements", {using => 'css selector', value => 'a'})};
expect($links, qr{guestbook\.pl.*stats\.php.*docs/.*tools/ping.*home}, 'it links what there is');
click('link text', 'Read and sign the guestbook');
type_in('input[name=name]', 'Visitor');
type_in('textarea[name=message]', $text);
click('css selector', 'button');
expect(text_of('.entry b'), qr/^Visitor$/, 'the guestbook is signed');
expect(text_of('.entry p'), qr/^\Q$text\E$/, 'the entry is shown, as text');
ask(DELETE => $session);
