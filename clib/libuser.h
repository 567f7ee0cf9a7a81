#pragma once

/**
 * Changing the identity of the whole process for good: real, effective and saved ids, the
 * supplementary groups and, but for root, all capabilities. Ids and capabilities are read back. Any
 * failure is printed through `messlog2` and ends the process with 1.
 */
extern "C" {

/// Enters the user's home directory and becomes the user, who must not be root. @return 0
int p_setuid(const char* name);

/**
 * @param enter_home  not 0: change into the user's home directory first, still privileged.
 * @param allow_root  not 0: a user with id 0 is let through.
 * @return 0
 */
int p_setuid_ex(const char* name, int enter_home, int allow_root);
}
