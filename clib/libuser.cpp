#include "clib/libuser.h"

#include "clib/liblog.h"
#include "clib/tarvik_ugid.h"

#include <grp.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

int p_setuid(const char* name)
{
    return p_setuid_ex(name, 1, 0);
}

int p_setuid_ex(const char* name, int enter_home, int allow_root)
{
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    const char* home = nullptr;

    if (tarvik_getpw(name, &uid, &gid, &home) != 0)
        messlog2(1, 1, "User %s not found", name);
    if (enter_home != 0 && chdir(home) != 0)  // while still privileged
        messlog2(1, 1, "Cannot chdir to %s homedir %s", name, home);
    if (uid == 0 && allow_root == 0)
        messlog2(1, 1, "Cannot run as forbidden uid: %d\n", 0);
    // Groups, group, user: the last one takes the right to the others away.
    if (initgroups(name, gid) != 0)
        messlog2(1, 1, "Unable to init new groups for user %s: %s", name, strerror(errno));
    if (setgid(gid) != 0)
        messlog2(1, 1, "Failed to setgid: %d\n", static_cast<int>(gid));
    if (setuid(uid) != 0)
        messlog2(1, 1, "Failed to setuid: %d\n", static_cast<int>(uid));
    return 0;
}
