#pragma once

#include <sys/types.h>

#include <string>

namespace tarvik {

/// The accounts that sites, panel and web server meet in, and the bits of a mode that can be set.
constexpr char kClientsGroup[] = "oxacln";
constexpr char kServicesGroup[] = "oxaserv";
constexpr char kWebServerUser[] = "www-data";
constexpr mode_t kModeBits = 07777;

/**
 * Turns the process into the site's user for good, as `p_setuid` does, with no descriptor open but
 * the standard streams: a link to "/proc/self/fd/7" in a package reaches what is open there, past
 * every directory that the user may not search.
 */
void become_site_user(const std::string& userName);

/**
 * The user whom files belong to that the process creates: whoever it has become or, while it is
 * still root, the account of that name. Settled by the first call.
 * @throws FSAFileException when root asks and there is no such account: its id must not be guessed.
 */
uid_t site_user_id(const std::string& userName);

}  // namespace tarvik
