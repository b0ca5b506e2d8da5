#include "shell/CommandLineParser.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

struct Outcome {
    bool runs = false;  // the service is to run
    CommandLineParser parser;
    std::string output;  // with the errors
};

Outcome parse(Strings args) {
    args.insert(args.begin(), "kelmdaemon");
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    Outcome outcome;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    outcome.runs = outcome.parser.parse(static_cast<int>(argv.size()), argv.data());
    outcome.output = ::testing::internal::GetCapturedStderr();
    outcome.output += ::testing::internal::GetCapturedStdout();
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
    }
}

// The daemon's child gets the words less "-d" and "--daemon": another spelling would come through.
TEST(CommandLineParserTest, OtherSpellingsAndQuestionsDoNotRunTheService) {
    const char* const invalid = "Invalid commandline, detailed error:\n";
    const std::pair<Strings, const char*> rows[] = {
        {{"--daem"}, invalid},
        {{"-dc"}, invalid},
        {{"--unknown"}, "Usage:\n  kelmdaemon [options]\nOptions:\n"},
        {{"-d", "--help"}, "specify config files for autoboot process."},
        {{"-l"},
         "Available Task Scheduler:\n"
         "  - First come first serve scheduler [name: \"fcfs\"]\n"
         "  - Task polling scheduler [name: \"polling\"]\n"},
    };
    for (const auto& [args, words] : rows) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const Outcome outcome = parse(args);
        EXPECT_FALSE(outcome.runs);
        EXPECT_FALSE(outcome.parser.isRunAsDaemon());
        EXPECT_THAT(outcome.output, HasSubstr(words));
    }
}

}  // namespace
}  // namespace kelm
