#include "app/zendrel.h"

#include "app/application.h"
#include "app/fsascript.h"
#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <iostream>
#include <stdexcept>

using namespace sandbox;

int zendrel_main(int argc, char** argv);

namespace tarvik {

// Stand-ins for the real commands: what the entry makes of a status and of each kind of exception.
int extractApplication(int argc, char** argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "util")
        throw TarvikUtilException("plain words");
    if (what == "runtime")
        throw std::runtime_error("x");
    if (what == "system")
        throwSystemError("open", ENOENT);
    if (what == "int")
        throw 5;
    return 3;
}

int deleteApplication(int argc, char** argv)
{
    for (int i = 0; i < argc; ++i)
        std::cout << "[" << argv[i] << "]";
    return 0;
}

int runApplicationScript(int /*argc*/, char** /*argv*/) { return 10; }
int installWebserverConfig(int /*argc*/, char** /*argv*/) { return 20; }
int removeWebserverConfig(int /*argc*/, char** /*argv*/) { return 30; }

}  // namespace tarvik

namespace {

Result entry(Words words)
{
    static Words all;
    all = std::move(words);
    return in_child([] {
        std::vector<char*> argv = {const_cast<char*>("zendrel")};
        for (std::string& word : all)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        std::exit(zendrel_main(static_cast<int>(argv.size()) - 1, argv.data()));
    });
}

TEST(Entry, TurnsEscapingExceptionsIntoMessagesAndStatuses)
{
    const std::string extract = "--extract-application";
    EXPECT_EQ(entry({extract, "util"}), says(1, "plain words\n"));
    EXPECT_EQ(entry({extract, "runtime"}), says_twice(1, "Fatal error: std::runtime_error(x)\n"));
    EXPECT_EQ(entry({extract, "system"}),
              says_twice(1,
                         "Fatal error: tarvik::ExSystemError<2>"
                         "(open: No such file or directory)\n"));
    EXPECT_EQ(entry({extract, "int"}), says_twice(2, "UNSPECIFIED ERROR OCCURED\n"));
    EXPECT_EQ(entry({extract}), says(3, ""));
    EXPECT_EQ(entry({"--run-application-script"}), says(10, ""));
    EXPECT_EQ(entry({"--install-apache-conf"}), says(20, ""));
    EXPECT_EQ(entry({"--remove-apache-conf"}), says(30, ""));
}

TEST(Entry, HandsOverTheWordsFromTheCommandOn)
{
    EXPECT_EQ(entry({"--delete-application", "--help", "", "a=b"}),
              (Result {0, "[--delete-application][--help][][a=b]", "", 0}));
}

TEST(Entry, PrintsTheUsageForHelpAndForWordsThatAreNoCommand)
{
    const std::string usage = read(ZENDREL_SOURCE_DIR "/tests/golden/usage.txt");
    ASSERT_FALSE(usage.empty());
    EXPECT_EQ(zendrel({}), says(1, "No command specified\n" + usage));
    EXPECT_EQ(zendrel({"--help"}), says(1, usage));
    EXPECT_EQ(zendrel({"-h", "--extract-application"}), says(1, usage));
    for (const std::string word : {"--Help", "", "help", "--extract", "--extract-application=x"})
        EXPECT_EQ(zendrel({word}), says(1, "Invalid command specified: " + word + "\n" + usage));
}

}  // namespace
