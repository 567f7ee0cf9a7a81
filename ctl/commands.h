#pragma once

/// The commands of zendrelctl. Each parses the words that follow its own and returns the exit
/// status; what ends it early is thrown as a Trouble, or as the option library's error.
namespace tarvik::ctl {

constexpr int kDone = 0;       ///< done, or nothing to do
constexpr int kTrouble = 1;    ///< also for a command line that is wrong
constexpr int kDifferent = 2;  ///< what was looked at is not as it should be

int check_package(int argc, char** argv);
int plan(int argc, char** argv);
int deploy(int argc, char** argv);
int upgrade(int argc, char** argv);
int rollback(int argc, char** argv);
int remove(int argc, char** argv);
int verify(int argc, char** argv);
int list(int argc, char** argv);
int instances(int argc, char** argv);
int apache(int argc, char** argv);
int check_host(int argc, char** argv);

}  // namespace tarvik::ctl
