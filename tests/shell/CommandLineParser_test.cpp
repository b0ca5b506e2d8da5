#include "shell/CommandLineParser.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

struct Outcome {
    bool runs = false;  // the service is to run
    CommandLineParser parser;
    std::string output;
    std::string errors;
};

Outcome parse(Strings args) {
    args.insert(args.begin(), "kelmdaemon");
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    Outcome outcome;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    outcome.runs = outcome.parser.parse(static_cast<int>(argv.size()), argv.data());
    outcome.output = ::testing::internal::GetCapturedStdout();
    outcome.errors = ::testing::internal::GetCapturedStderr();
    return outcome;
}

TEST(CommandLineParserTest, EachOptionHasItsEffect) {
    const struct {
        Strings args;
        bool daemon;
        Strings configFiles;
        Strings bootFiles;
    } rows[] = {
        {{}, false, {}, {}},
        {{"-d"}, true, {}, {}},
        {{"--daemon", "-c", "a"}, true, {"a"}, {}},
        {{"-c", "a", "--config-file", "b"}, false, {"a", "b"}, {}},
        {{"--config-file=a", "--boot-config", "x", "y"}, false, {"a"}, {"x", "y"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        const Outcome outcome = parse(row.args);
        EXPECT_TRUE(outcome.runs);
        EXPECT_EQ(outcome.parser.isRunAsDaemon(), row.daemon);
        EXPECT_EQ(outcome.parser.getServiceConfigFiles(), row.configFiles);
        EXPECT_EQ(outcome.parser.getBootConfigFiles(), row.bootFiles);
        for (const std::string& file : row.configFiles) {
            EXPECT_THAT(outcome.output, HasSubstr("## Specified config file: " + file + "\n"));
        }
    }
}

// The daemon's child gets the words less "-d" and "--daemon": another spelling would come through.
TEST(CommandLineParserTest, OtherSpellingsOfDaemonAreRefused) {
    for (const char* word : {"--daem", "-dc", "--unknown"}) {
        SCOPED_TRACE(word);
        const Outcome outcome = parse({word});
        EXPECT_FALSE(outcome.runs);
        EXPECT_FALSE(outcome.parser.isRunAsDaemon());
        EXPECT_THAT(outcome.errors, HasSubstr("Invalid commandline, detailed error:\n"));
        EXPECT_THAT(outcome.output, HasSubstr("Usage:\n  kelmdaemon [options]\nOptions:\n"));
    }
}

TEST(CommandLineParserTest, HelpAndListDoNotRunTheService) {
    const Outcome help = parse({"-d", "--help"});
    EXPECT_FALSE(help.runs);
    EXPECT_THAT(help.output, HasSubstr("specify config files for autoboot process."));
    const Outcome list = parse({"-l"});
    EXPECT_FALSE(list.runs);
    EXPECT_EQ(list.output,
              "Available Task Scheduler:\n"
              "  - First come first serve scheduler [name: \"fcfs\"]\n"
              "  - Task polling scheduler [name: \"polling\"]\n");
}

}  // namespace
}  // namespace kelm
