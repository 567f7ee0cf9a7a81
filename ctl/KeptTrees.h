#pragma once

#include "ctl/Record.h"

#include <cstddef>
#include <string>

/// The trees beside an application: the one that an upgrade makes, and those that it has replaced.
namespace tarvik::ctl {

/// @return the names of these trees for an application's directory of that name.
std::string next_name(const std::string& name);
std::string previous_name(const std::string& name);

/**
 * Removes a tree beside the application: what the site's user may, and for the rest what the web
 * server may, which has made it.
 * @throws Trouble when something of it is left.
 */
void remove_tree(const Site& site, const std::string& name);

/// Removes the kept trees from that number on, and then each from the record.
void drop_kept(InstanceRecord& record, std::size_t from);

/// Prints what is left where an instance was, each entry with its owner. In a document root that is
/// what is in the instance's directories.
void print_left(const InstanceRecord& record);

}  // namespace tarvik::ctl
