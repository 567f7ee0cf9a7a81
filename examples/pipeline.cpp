// What a shell would do, as values of C++: counts the words of a text, and shows what goes wrong.
#include <zendrel/common/TmpFile.h>
#include <zendrel/sys/TExecsList.h>

#include <iostream>
#include <stdexcept>

using namespace tarvik::sys;

namespace {

/// Without the hook, a child whose program cannot be started goes on in our code.
TExec program(const TEArgs& args)
{
    return TExec(args) * exit_without_program();
}

void count_words()
{
    const TExec words = program({"tr", "-s", " ", "\\n"}) << "to be or not to be that is to say\n";
    const TExec sorted = program({"sort"}), counted = program({"uniq", "-c"});
    const TExec most = program({"sort", "-rn"}), first_two = program({"head", "-n", "2"});
    std::string output;
    output <<= words | (sorted | (counted | (most | first_two)));
    std::cout << "most frequent:\n" << output;
}

void write_and_read_a_file()
{
    const tarvik::TmpFile file("/tmp/pipeline.", true);
    const TExec first = program({"echo", "first"}), second = program({"echo", "second"});
    const TSLProcess last = (first > file.name(), second >> file.name()).execute();
    std::string output;
    output <<= program({"cat"}) < file.name();
    std::cout << "exit code " << last.exit_code << ", written:\n" << output;
}

void show_errors()
{
    std::string output;
    try {
        output <<= program({"sh", "-c", "echo half; exit 3"});
    } catch (const std::runtime_error& e) {
        std::cout << e.what();
    }
    try {
        std::cout << TEArgs({"one"})[1] << '\n';
    } catch (const TEArgs::TEArgsError& e) {
        std::cout << e.what() << " in the arguments of " << e.args()[0] << '\n';
    }
    std::cout << "no such program: exit code " << program({"no-such-program"}).execute().exit_code
              << '\n';
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
