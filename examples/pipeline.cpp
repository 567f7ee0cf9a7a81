// What a shell would do, as values of C++: counts the words of a text, and shows what goes wrong.
#include "common/TmpFile.h"
#include "sys/TExecsList.h"

#include <unistd.h>

#include <iostream>
#include <stdexcept>

using namespace tarvik::sys;

namespace {

/// Ends a child whose program cannot be started. Without it, that child goes on in our code.
class TExitWithoutProgram : public TExec::TPrepare {
public:
    bool exec_failed(TExec&) override { ::_exit(127); }
};

void count_words()
{
    const TExec words = TExec({"tr", "-s", " ", "\\n"}) << "to be or not to be that is to say\n";
    const TExec sorted({"sort"}), counted({"uniq", "-c"}), most({"sort", "-rn"});
    std::string output;
    output <<= words | (sorted | (counted | (most | TExec({"head", "-n", "2"}))));
    std::cout << "most frequent:\n" << output;
}

void write_and_read_a_file()
{
    const tarvik::TmpFile file("/tmp/pipeline.", true);
    const TExec first({"echo", "first"}), second({"echo", "second"}), both({"cat"});
    const TSLProcess last = (first > file.name(), second >> file.name()).execute();
    std::string output;
    output <<= both < file.name();
    std::cout << "exit code " << last.exit_code << ", written:\n" << output;
}

void show_errors()
{
    std::string output;
    try {
        output <<= TExec({"sh", "-c", "echo half; exit 3"});
    } catch (const std::runtime_error& e) {
        std::cout << e.what();
    }
    try {
        TEArgs({"one"})[1].size();
    } catch (const TEArgs::TEArgsError& e) {
        std::cout << e.what() << " in the arguments of " << e.args()[0] << '\n';
    }
    TExec missing({"no-such-program"});
    missing += make_prepare<TExitWithoutProgram>();
    std::cout << "no such program: exit code " << missing.execute().exit_code << '\n';
}

}  // namespace

int main()
try {
    count_words();
    write_and_read_a_file();
    show_errors();
} catch (const std::exception& e) {
    std::cerr << "pipeline: " << e.what() << '\n';
    return 1;
}
