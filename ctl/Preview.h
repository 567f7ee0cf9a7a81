#pragma once

#include "app/InstallPlan.h"
#include "ctl/Site.h"

#include <sys/types.h>

#include <string>
#include <vector>

/// What an extraction would do, found out without doing any of it.
namespace tarvik::ctl {

/// What becomes of one entry of the site.
enum class Fate {
    Create,
    ReplaceEqual,      ///< by a file of the same content and owner
    ReplaceDifferent,  ///< by a file of another content
    ReplaceForeign,    ///< by a file of the same content that then has another owner
    ReplaceLink,       ///< by a file; what the link leads to stays
    ReplaceDirectory,  ///< by a file; it is empty
    ReplaceOther,      ///< by a file: a pipe, a socket or a device
    Keep,              ///< but for its mode
};

struct Step {
    /// @return whether the site is another one after it.
    bool changes() const;

    Fate fate;
    bool directory = false;
    mode_t before = 0;             ///< permission bits, of a link those that links have
    mode_t mode = 0;               ///< those that it has in the end
    bool becomesProgram = false;   ///< a file that can be executed and could not
    bool becomesWritable = false;  ///< by the web server, which had not all the bits for it
    std::string path = {};  ///< in the application's directory, "." for itself; absolute above it
};

/// What will go wrong in one place.
struct Foreseen {
    std::string path;  ///< as in steps
    std::string reason;
};

/// A finding about a directory that only the extraction opens to the site's user, or that is empty
/// for all that user can know.
constexpr char kHidden[] = "cannot be looked into now: what happens there is not told";

struct Preview {
    /// @return whether an extraction would do or meet anything but what is there already.
    bool changes() const;

    std::vector<Step> steps;         ///< one for each entry, in the order of the first change
    std::vector<Foreseen> failures;  ///< an extraction ends at the first; what depends on one of
                                     ///< them is not told
    std::vector<Foreseen> warnings;  ///< what it goes on with, but leaves undone
    bool undoes = false;             ///< at the first failure the targets are removed
    /// What is in the site now and would be gone after a removal of the targets: at the first
    /// failure or, where none is foreseen, at one that nobody can foresee. In no order.
    std::vector<std::string> atStake;
    std::vector<Foreseen> removalEnds;  ///< where such a removal ends early, with part of that left
};

/// @return what an extraction ends with before it looks at package or site: for root, who alone
///         may look at all of it.
std::vector<Foreseen> host_failures(const Site& site);

/**
 * Tells what an extraction would do, by its own plan; the host must be as `host_failures` wants it.
 * For the site's user: the rights of this process are those that count. Starts threads, so that it
 * must not fork any more.
 * @param appDir  the application's directory, as the plan was made for it.
 */
Preview preview_extraction(const InstallPlan& plan, const std::string& packageDir,
                           const std::string& appDir, bool skipWebserverWrite);

}  // namespace tarvik::ctl
