#include "app/zendrel.h"

#include "app/application.h"
#include "app/fsascript.h"
#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <iostream>

using namespace sandbox;

int zendrel_main(int argc, char** argv);

// Stand-ins for the real commands: what the entry makes of a status and of each kind of exception.
namespace tarvik {
int extractApplication(int, char**) { throw TarvikUtilException("plain words"); }
int runApplicationScript(int, char**) { throwSystemError("open", ENOENT); }
int installWebserverConfig(int, char**) { throw 5; }
int removeWebserverConfig(int, char**) { return 30; }
int deleteApplication(int argc, char** argv)
{
    for (int i = 0; i < argc; ++i)
        std::cout << "[" << argv[i] << "]";
    return 0;
}
}  // namespace tarvik

namespace {

TEST(Entry, HandsOverToItsCommandsAndTurnsExceptionsIntoMessages)
{
    static std::string command;
    const auto entry = [](const std::string& word) {
        command = word;
        return in_child([] {
            char* argv[] = {command.data(), command.data(), const_cast<char*>("--help"), const_cast<char*>(""),
                            nullptr};
            std::exit(zendrel_main(4, argv));
        });
    };
    EXPECT_EQ(entry("--extract-application"), says(1, "plain words\n"));
    EXPECT_EQ(entry("--run-application-script"),
              says_twice(1, "Fatal error: tarvik::ExSystemError<2>(open: No such file or directory)\n"));
    EXPECT_EQ(entry("--install-apache-conf"), says_twice(2, "UNSPECIFIED ERROR OCCURED\n"));
    EXPECT_EQ(entry("--remove-apache-conf"), says(30, ""));
    EXPECT_EQ(entry("--delete-application"), (Result {0, "[--delete-application][--help][]", "", 0}));
}

TEST(Entry, PrintsTheUsageForHelpAndForWordsThatAreNoCommand)
{
    const std::string usage = read(ZENDREL_SOURCE_DIR "/tests/golden/usage.txt");
    EXPECT_EQ(zendrel({}), says(1, "No command specified\n" + usage));
    EXPECT_EQ(zendrel({"--help"}), says(1, usage));
    EXPECT_EQ(zendrel({"-h", "--extract-application"}), says(1, usage));
    for (const std::string word : {"--Help", "", "help", "--extract", "--extract-application=x"})
        EXPECT_EQ(zendrel({word}), says(1, "Invalid command specified: " + word + "\n" + usage));
}

}  // namespace
