#pragma once

#include <sys/types.h>

/**
 * Names of users and groups turned into ids. An unknown name is reported through `messlog2` as a
 * warning. An id of 0 stands for "unknown" as well as for root and its group: never switch to it.
 */
extern "C" {

/**
 * @param user_id, group_id, home  receive what the user database says; each may be NULL. `home`
 *        points into the database's own storage, valid until its next lookup.
 * @return 0; -1 when the user is unknown.
 */
int tarvik_getpw(const char* name, uid_t* user_id, gid_t* group_id, const char** home);

/// @return the user's id, or its group's id when `selector` is not 0; 0 when unknown.
unsigned tarvik_ugid(const char* name, int selector);

/// @return the user's id; 0 when unknown.
unsigned get_user_id(const char* name);

/// @param group  decimal digits (the empty text among them) or a name. @return its id; 0 when
/// unknown.
unsigned get_group_id(const char* group);
/// @return the group's id; 0 when unknown.
unsigned get_gid_by_name(const char* name);
/// @return `group_id` itself if there is such a group; 0 otherwise.
unsigned get_gid_by_id(gid_t group_id);

/// @return 1 when every character is a decimal digit, the empty text included; else 0.
int is_number(const char* text);
}
