#pragma once

#include <sys/types.h>

/// Starting a child and waiting for it.
extern "C" {

/**
 * Waits once for one child and reduces its status. A stopped child is reported, not waited for
 * again.
 * @param pid     the child; negative means the caller's fork failed, which is logged here.
 * @param label   name for log lines, borrowed; NULL reads "<unknown>".
 * @param status  receives the raw wait status; may be NULL.
 * @return exit code 0..255; -1 when the child did not exit by itself (logged, priority 3 or 4).
 */
int fork_exec_waitpid(pid_t pid, const char* label, int* status);

/**
 * Moves a descriptor onto another number and closes the old one; nothing to do when they are equal.
 * @param source  -1 stands for "/dev/null", opened for reading and writing.
 * @return 0; -1 with `errno`.
 */
int dup2_custom(int source, int target);

/**
 * Gives this process its standard streams. The three may be one descriptor or each other's numbers.
 * @param input, output, error  -1 stands for "/dev/null"; whatever else is above 2 stays open, too,
 *        for the caller to close.
 * @return 0; -1 with `errno`.
 */
int dup2_streams(int input, int output, int error);

/**
 * Runs a program in a child that has the three descriptors as its standard streams and no other
 * open. A failure in the child is printed on its standard error, exit status 255; a failed fork
 * ends the calling process.
 * @param path       the program; not searched for.
 * @param arguments  null-terminated, the program's name first; borrowed.
 * @return the child's process id, which the caller waits for.
 */
pid_t fork_execv_pipes(int input, int output, int error, const char* path, char* const arguments[]);
}
