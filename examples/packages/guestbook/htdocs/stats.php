<?php
// Counts the entries of the guestbook and lists who wrote last.

const SHOWN = 5;
function h(string $text): string
{
    return htmlspecialchars($text, ENT_QUOTES | ENT_SUBSTITUTE, 'UTF-8');
}

/** Returns the entries as [time, name] pairs, or null if the store can't be read. */
function entries(string $file): ?array
{
    if (!file_exists($file)) {
        return [];  // nobody has signed yet
    }
    $store = @fopen($file, 'rb');
    if ($store === false || !flock($store, LOCK_SH)) {
        return null;
    }
    $entries = [];
    while (($line = fgets($store)) !== false) {
        $fields = explode("\t", rtrim($line, "\n"));
        if ($line[0] !== '#' && count($fields) === 3) {
            // A name has no line breaks, so only backslashes are escaped in it.
            $entries[] = [$fields[0], str_replace('\\\\', '\\', $fields[1])];
        }
    }
    fclose($store);
    return $entries;
}

$entries = entries(__DIR__ . '/data/entries.txt');
header('Content-Type: text/html; charset=utf-8');
if ($entries === null) {
    http_response_code(500);
}
?>
<!DOCTYPE html>
<html lang="en"><head>
  <meta charset="utf-8">
  <title>Guestbook statistics</title>
  <link rel="stylesheet" href="style.css">
</head><body>
  <h1>Guestbook statistics</h1>
<?php if ($entries === null): ?>
  <p>The entries can't be read at the moment.</p>
<?php else: ?>
  <p>Entries: <?= count($entries) ?></p>
  <ul>
<?php foreach (array_reverse(array_slice($entries, -SHOWN)) as [$time, $name]): ?>
    <li><time><?= h($time) ?></time> <bdi><?= h($name) ?></bdi></li>
<?php endforeach; ?>
  </ul>
<?php endif; ?>
  <p><a href="cgi-bin/guestbook.pl">To the guestbook</a></p>
</body></html>
