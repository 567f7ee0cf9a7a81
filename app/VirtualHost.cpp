#include "app/VirtualHost.h"

namespace tarvik::layout {

VirtualHost::VirtualHost(const std::string& name, const std::string& root)
    : name_(name), root_(root)
{
}

std::string VirtualHost::conf() const
{
    return root_ + "/system/" + name_ + "/conf/";
}

}  // namespace tarvik::layout
