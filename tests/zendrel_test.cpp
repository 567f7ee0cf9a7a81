#include "app/application.h"
#include "app/fsascript.h"
#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <cstdio>

using namespace sandbox;

int zendrel_main(int argc, char** argv);

// Stand-ins for the real commands: what the entry makes of a status and of each kind of exception.
namespace tarvik {
int extractApplication(int, char**) { throw TarvikUtilException("plain words"); }
int runApplicationScript(int, char**) { throwSystemError("open", ENOENT); }
int installWebserverConfig(int, char**) { throw 5; }
int removeWebserverConfig(int, char**) { return 0; }
int deleteApplication(int argc, char** argv) { return std::printf("[%s][%s][%s]", argv[0], argv[1], argv[argc - 1]); }
}  // namespace tarvik

namespace {

TEST(Entry, HandsOverToItsCommandsAndTurnsExceptionsIntoMessages)
{
    const auto entry = [](const std::string& command) {
        return in_child([&command] {
            const char* argv[] = {command.c_str(), command.c_str(), "--help", "", nullptr};
            std::exit(zendrel_main(4, const_cast<char**>(argv)));
        });
    };
    EXPECT_EQ(entry("--extract-application"), says(1, "plain words\n"));
    EXPECT_EQ(entry("--run-application-script"),
              says_twice(1, "Fatal error: tarvik::ExSystemError<2>(open: No such file or directory)\n"));
    EXPECT_EQ(entry("--install-apache-conf"), says_twice(2, "UNSPECIFIED ERROR OCCURED\n"));
    EXPECT_EQ(entry("--delete-application"), prints("[--delete-application][--help][]", 32));
}

TEST(Entry, PrintsTheUsageForHelpAndForWordsThatAreNoCommand)
{
    const std::string usage = read(ZENDREL_SOURCE_DIR "/tests/golden/usage.txt");
    EXPECT_EQ(zendrel({}), says(1, "No command specified\n" + usage));
    EXPECT_EQ(zendrel({"--help"}), says(1, usage));
    EXPECT_EQ(zendrel({"-h", "--extract-application"}), says(1, usage));
    for (const std::string word : {"--Help", "", "--extract", "--extract-application=x"})
        EXPECT_EQ(zendrel({word}), says(1, "Invalid command specified: " + word + "\n" + usage));
}

}  // namespace
