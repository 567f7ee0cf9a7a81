#include "clib/tarvik_ugid.h"

#include "clib/liblog.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

int tarvik_getpw(const char* name, uid_t* user_id, gid_t* group_id, const char** home)
{
    errno = 0;
    const passwd* const user = getpwnam(name);
    if (user == nullptr) {
        messlog2(0, 0, "Unable to getpwnam for user %s", name);
        return -1;
    }
    if (user_id != nullptr)
        *user_id = user->pw_uid;
    if (group_id != nullptr)
        *group_id = user->pw_gid;
    if (home != nullptr)
        *home = user->pw_dir;
    return 0;
}

unsigned tarvik_ugid(const char* name, int selector)
{
    uid_t user_id = 0;
    gid_t group_id = 0;
    if (selector != 0)
        return tarvik_getpw(name, nullptr, &group_id, nullptr) == 0 ? group_id : 0;
    return tarvik_getpw(name, &user_id, nullptr, nullptr) == 0 ? user_id : 0;
}

unsigned get_user_id(const char* name)
{
    errno = 0;
    const passwd* const user = getpwnam(name);
    if (user == nullptr) {
        messlog2(0, 0, "Unable to find uid for user %s: %s", name, strerror(errno));
        return 0;
    }
    return user->pw_uid;
}

unsigned get_group_id(const char* group)
{
    if (is_number(group) == 0)
        return get_gid_by_name(group);
    errno = 0;
    const unsigned long id = strtoul(group, nullptr, 10);
    // The id that no group can have stands for every number that is none.
    const gid_t none = static_cast<gid_t>(-1);
    return get_gid_by_id(errno == ERANGE || id > INT_MAX ? none : static_cast<gid_t>(id));
}

unsigned get_gid_by_name(const char* name)
{
    errno = 0;
    const group* const found = getgrnam(name);
    if (found == nullptr) {
        messlog2(0, 0, "getgrnam(%s): %s", name, strerror(errno));
        return 0;
    }
    return found->gr_gid;
}

unsigned get_gid_by_id(gid_t group_id)
{
    errno = 0;
    if (getgrgid(group_id) == nullptr) {
        messlog2(0, 0, "getgrgid(%d): %s", static_cast<int>(group_id), strerror(errno));
        return 0;
    }
    return group_id;
}

int is_number(const char* text)
{
    return text[strspn(text, "0123456789")] == '\0' ? 1 : 0;
}
