#include "clib/libuser.h"

#include "clib/liblog.h"
#include "clib/tarvik_ugid.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

using Capabilities = __user_cap_data_struct;

bool has_ids(uid_t uid, gid_t gid)
{
    uid_t users[3];
    gid_t groups[3];
    return getresuid(&users[0], &users[1], &users[2]) == 0
        && getresgid(&groups[0], &groups[1], &groups[2]) == 0
        && std::count(std::begin(users), std::end(users), uid) == 3
        && std::count(std::begin(groups), std::end(groups), gid) == 3;
}

bool is_empty(const Capabilities& set)
{
    return set.effective == 0 && set.permitted == 0 && set.inheritable == 0;
}

/// The kernel spares inheritable ones, and all where the secure bits of the caller say so. What
/// these calls return does not matter, only what is left.
bool drop_capabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    Capabilities sets[_LINUX_CAPABILITY_U32S_3] = {};
    static_cast<void>(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0));
    static_cast<void>(syscall(SYS_capset, &header, sets));
    return syscall(SYS_capget, &header, sets) == 0
        && std::all_of(std::begin(sets), std::end(sets), is_empty);
}

/// @return whether ids and capabilities are the user's alone; else false with `errno`.
bool has_become(uid_t uid, gid_t gid)
{
    if (has_ids(uid, gid) && (uid == 0 || drop_capabilities()))
        return true;
    errno = EPERM;
    return false;
}

}  // namespace

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
    if (setuid(uid) != 0 || !has_become(uid, gid))
        messlog2(1, 1, "Failed to setuid: %d\n", static_cast<int>(uid));
    return 0;
}
