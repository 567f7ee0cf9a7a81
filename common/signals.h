#pragma once

namespace tarvik {

/**
 * Turns the signals that end a process for what it writes into errors of the call: SIGPIPE (EPIPE,
 * the reader has gone) and SIGXFSZ (EFBIG, a limit of the file size). The caller's dispositions are
 * kept for `restore_write_signals`.
 */
void ignore_write_signals();

/// For a child that executes a program: what `ignore_write_signals` found; nothing without it.
void restore_write_signals();

}  // namespace tarvik
