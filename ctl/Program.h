#pragma once

#include <string>
#include <vector>

namespace tarvik::ctl {

/// @return where the search path, or the directories of root's programs, have a program; empty when
///         they have none.
std::string find_program(const std::string& name);

/// @return the words of a command, which blanks separate; nothing is quoted.
std::vector<std::string> words_of(const std::string& command);

/**
 * Runs a program to its end, without a shell. Signals that this process holds back reach it.
 * @param words  the program, looked up along the search path unless it is a path, and its
 * arguments.
 * @return whether it exited with 0. If not, what it wrote has been shown on standard error.
 */
bool succeeds(const std::vector<std::string>& words);

}  // namespace tarvik::ctl
