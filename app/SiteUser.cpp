#include "app/SiteUser.h"

#include "clib/libuser.h"
#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"

#include <unistd.h>

namespace tarvik {

namespace {

uid_t find_user(const std::string& userName)
{
    const uid_t self = ::geteuid();
    const uid_t user = self != 0 ? self : tarvik_ugid(userName.c_str(), 0);
    if (user == 0)
        throw FSAFileException("Unable to find user " + userName);
    return user;
}

}  // namespace

void become_site_user(const std::string& userName)
{
    ::closefrom(STDERR_FILENO + 1);
    p_setuid(userName.c_str());
}

uid_t site_user_id(const std::string& userName)
{
    static const uid_t user = find_user(userName);
    return user;
}

}  // namespace tarvik
