<?php
// An album: shows the pictures in "data", the latest first, and takes new ones from visitors.
declare(strict_types=1);

const MAX_BYTES = 2 * 1024 * 1024;  // as much as PHP takes where nothing else is set
const MAX_SIDE = 10000;             // pixels: a small file can hold a picture that fills a memory
const MAX_PICTURES = 1000;
const STALE_SECONDS = 3600;
// What a file is says its content. Its name on the visitor's machine is never used.
const EXTENSIONS = [IMAGETYPE_GIF => 'gif', IMAGETYPE_JPEG => 'jpg', IMAGETYPE_PNG => 'png', IMAGETYPE_WEBP => 'webp'];
// Not relative: the server works wherever it likes.
const STORE = __DIR__ . '/data';

/** What keeps a picture from being taken: told to the visitor, with an HTTP status. */
class Refusal extends RuntimeException
{
}

function h(string $text): string
{
    return htmlspecialchars($text, ENT_QUOTES | ENT_SUBSTITUTE, 'UTF-8');
}

/** Returns the names of all pictures, the latest first. */
function pictures(): array
{
    $names = @scandir(STORE, SCANDIR_SORT_DESCENDING);
    if ($names === false) {
        throw new Refusal('The pictures cannot be read at the moment.', 500);
    }
    return array_values(preg_grep('/\A\d{8}-\d{6}-[0-9a-f]{16}\.(?:gif|jpg|png|webp)\z/', $names));
}

/** Returns the file that a visitor has sent, wherever PHP keeps it. */
function uploaded_file(): string
{
    $sent = $_FILES['picture'] ?? null;
    $error = $sent['error'] ?? null;
    // Beyond PHP's own limits there is no file, beyond that of the request not even the field.
    $tooLong = [UPLOAD_ERR_INI_SIZE, UPLOAD_ERR_FORM_SIZE];
    if (in_array($error, $tooLong, true) || ($sent === null && (int) ($_SERVER['CONTENT_LENGTH'] ?? 0) > MAX_BYTES)) {
        throw new Refusal('That picture is too large.', 413);
    }
    if ($sent === null || $error === UPLOAD_ERR_NO_FILE || is_array($error)) {
        throw new Refusal('Please choose one picture.', 400);
    }
    if ($error !== UPLOAD_ERR_OK || !is_uploaded_file($sent['tmp_name'])) {
        throw new Refusal('The picture did not arrive.', 500);
    }
    if (filesize($sent['tmp_name']) > MAX_BYTES) {
        throw new Refusal('That picture is too large.', 413);
    }
    return $sent['tmp_name'];
}

function extension_for(string $file): string
{
    $about = @getimagesize($file);
    $extension = EXTENSIONS[$about[2] ?? 0] ?? null;
    if ($extension === null) {
        throw new Refusal('Only GIF, JPEG, PNG and WebP pictures are taken.', 415);
    }
    if (max($about[0], $about[1]) > MAX_SIDE) {
        throw new Refusal('That picture is too large.', 413);
    }
    return $extension;
}

/** What a visitor has begun to send and a killed server did not end. */
function remove_stale_files(): void
{
    foreach (glob(STORE . '/incoming-*') ?: [] as $file) {
        if (time() - (int) @filemtime($file) > STALE_SECONDS) {
            @unlink($file);
        }
    }
}

/** Copies a file into a new one. Returns whether all of it has arrived. */
function copy_into_new_file(string $from, string $to): bool
{
    $in = @fopen($from, 'rb');
    $out = @fopen($to, 'xb');  // never into a file, or through a link, that is there already
    if ($in === false || $out === false) {
        return false;
    }
    $size = filesize($from);
    $copied = stream_copy_to_stream($in, $out);
    return $copied === $size && fsync($out) && fclose($out);
}

/** Makes a file appear under a new name, whole or not at all. */
function store_as(string $file, string $extension): bool
{
    $unique = bin2hex(random_bytes(8));
    $incoming = STORE . "/incoming-$unique";
    $stored = STORE . '/' . gmdate('Ymd-His') . "-$unique.$extension";
    if (copy_into_new_file($file, $incoming) && @rename($incoming, $stored)) {
        return true;
    }
    @unlink($incoming);
    return false;
}

function store(string $file): void
{
    $extension = extension_for($file);
    if (count(pictures()) >= MAX_PICTURES) {
        throw new Refusal('The album is full.', 507);
    }
    remove_stale_files();
    // An upgrade may have exchanged the directory between the two steps: then the next attempt is in the new one.
    if (!store_as($file, $extension) && !store_as($file, $extension)) {
        throw new Refusal('The picture cannot be stored at the moment.', 500);
    }
}

$problem = '';
$pictures = [];
try {
    if ($_SERVER['REQUEST_METHOD'] === 'POST') {
        store(uploaded_file());
        header('Location: index.php', true, 303);
        exit;
    }
    $pictures = pictures();
} catch (Refusal $refusal) {
    $problem = $refusal->getMessage();
    http_response_code($refusal->getCode());
}
header('Content-Type: text/html; charset=utf-8');
header('X-Content-Type-Options: nosniff');
header("Content-Security-Policy: default-src 'none'; img-src 'self'; style-src 'self'; form-action 'self'");
?>
<!DOCTYPE html>
<html lang="en"><head>
  <meta charset="utf-8">
  <title>Photos</title>
  <link rel="stylesheet" href="style.css">
</head><body>
  <h1>Photos</h1>
<?php if ($problem !== ''): ?>
  <p class="problem"><?= h($problem) ?></p>
<?php endif; ?>
  <form method="post" enctype="multipart/form-data">
    <input type="file" name="picture" accept="image/gif,image/jpeg,image/png,image/webp" required>
    <button>Upload</button>
  </form>
  <ul>
<?php foreach ($pictures as $name): ?>
    <li><img src="data/<?= h($name) ?>" alt="picture of <?= h(substr($name, 0, 8)) ?>" loading="lazy"></li>
<?php endforeach; ?>
  </ul>
</body></html>
