#pragma once

#include <functional>
#include <string>

/// Files that root's server reads. They are exchanged at a stroke, so that whoever reads them and
/// whatever is killed, there is the old one or the new one; only their owner may read them.
namespace tarvik::ctl {

/// Writes a file, in place of a regular file if there is one. @throws Trouble, with nothing
/// changed.
void write_file(const std::string& path, const std::string& text);

/**
 * The same for a file that has to pass a test in its place. If it does not, the old file is put
 * back, or there is none again; a signal that would end the process waits until this is over. A
 * process that is killed during the test leaves the new file, untested.
 *
 * Only a file that begins with the same line is replaced: any other was written by somebody else.
 * @param temporary  the beginning of the names of temporary files for this one.
 * @param test       says whether all is well; what it throws counts as a no.
 * @throws Trouble also when it was not kept.
 */
void write_tested_file(const std::string& path, const std::string& temporary,
                       const std::string& text, const std::function<bool()>& test);

}  // namespace tarvik::ctl
