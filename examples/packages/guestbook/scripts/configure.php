<?php
// Configuration script of the guestbook for the PHP command line; see README for the actions.

function quit(int $code, string $text): void
{
    fwrite(STDERR, "configure: $text\n");
    exit($code);
}

function usage(): void
{
    fwrite(STDERR, "usage: configure configure|disable|enable|install|query|remove|upgrade"
        . " [--data=DIR] [--force]\n");
    exit(2);
}

/**
 * Null if there is no data file. A file that can't be read may well have entries, so that is an
 * error and never taken for an empty one.
 */
function count_entries(string $action, string $dir): ?int
{
    $file = "$dir/entries.txt";
    if ($dir === '' || (!file_exists($file) && (!is_dir($dir) || is_executable($dir)))) {
        return null;
    }
    $lines = @file($file);
    if ($lines === false) {
        quit(1, "$action: cannot read $file");
    }
    return count(preg_grep('/^(?!#).*\S/s', $lines));
}

function prepare(string $action, string $dir): string
{
    if ($dir === '') {
        return 'no data directory given, nothing prepared';
    }
    $file = "$dir/entries.txt";
    $mode = @fileperms($dir);
    if ($mode === false) {
        quit(1, "$action: cannot use $dir");
    }
    // Visitors write as the web server: whoever may write the directory may write the file.
    umask(~$mode & 0666);
    $out = @fopen($file, 'xb');
    if ($out === false) {
        if (file_exists($file)) {
            return "kept $file";
        }
        quit(1, "$action: cannot create $file");
    }
    $header = "# Guestbook entries, one per line: time, name and message, separated by tabs.\n";
    if (@fwrite($out, $header) !== strlen($header) || !fclose($out)) {
        quit(1, "$action: cannot write $file");
    }
    return "created $file";
}

function discard(string $dir, bool $force): string
{
    $file = "$dir/entries.txt";
    $count = count_entries('remove', $dir);
    if ($count === null) {
        return 'no data to remove';
    }
    if ($count > 0 && !$force) {
        quit(3, "remove: $file has entries ($count); use --force to lose them");
    }
    if (!@unlink($file)) {
        quit(1, "remove: cannot remove $file");
    }
    return "removed $file";
}

function query(string $dir): string
{
    $count = count_entries('query', $dir);
    return $count === null ? 'no data' : "entries in $dir/entries.txt: $count";
}

$action = $argv[1] ?? '';
$dir = '';
$force = false;
foreach (array_slice($argv, 2) as $word) {
    if ($word === '--force') {
        $force = true;
    } elseif (strncmp($word, '--data=', 7) === 0 && $word !== '--data=') {
        $dir = substr($word, 7);
    } else {
        usage();
    }
}
switch ($action) {
    case 'install':
    case 'upgrade':
        $text = prepare($action, $dir);
        break;
    case 'remove':
        $text = discard($dir, $force);
        break;
    case 'query':
        $text = query($dir);
        break;
    case 'configure':
        $text = 'there are no settings';
        break;
    case 'enable':
    case 'disable':
        $text = 'nothing to do';
        break;
    default:
        usage();
}
echo "$action: $text\n";
