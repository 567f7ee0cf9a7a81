#pragma once

#include <sys/types.h>

/// System calls in terms of the library's values.
namespace tarvik::sys {

class TEArgs;

/**
 * Replaces the process image; the descriptors without close-on-exec stay open.
 * @param args         the program and its arguments, at least one; a string ends at its first NUL.
 * @param path_search  whether a program without a separator is looked up along the search path.
 * @return only on failure: -1, with `errno`.
 */
int exec_v(const TEArgs& args, bool path_search);

/**
 * Starts a program in a new process that shares the caller's memory until then, so that its size
 * costs nothing. @return the process; -1 when it could not be started.
 */
pid_t spawn_v(const TEArgs& args, bool path_search);

/**
 * Waits until a child ends or is stopped. Interrupted, it goes on waiting.
 * @return the raw wait status; 0 when there is no such child.
 * @throws SystemError (or ExSystemError<N>) "waitpid() failed" for anything else.
 */
int wait_process(pid_t process);

}  // namespace tarvik::sys
