#include "shell/CommandLineParser.h"

namespace kelm {
namespace {

using Strings = std::vector<std::string>;

TEST(CommandLineParserTest, EachOptionHasItsEffect) {
    // Deliberate: the daemon's child gets the words less "-d" and "--daemon", so that another
    // spelling must not be taken.
    const struct {
        Strings args;
        bool runs;
        bool daemon;
        Strings configFiles;
        Strings bootFiles;
    } rows[] = {
        {{}, true, false, {}, {}},
        {{"-d"}, true, true, {}, {}},
        {{"--daemon", "-c", "a"}, true, true, {"a"}, {}},
        {{"-c", "a", "--config-file", "b"}, true, false, {"a", "b"}, {}},
        {{"--config-file=a", "--boot-config", "x", "y"}, true, false, {"a"}, {"x", "y"}},
        {{"--daem"}, false, false, {}, {}},
        {{"-dc", "x"}, false, false, {}, {}},
        {{"--unknown"}, false, false, {}, {}},
        {{"-d", "--help"}, false, false, {}, {}},
        {{"-l"}, false, false, {}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        Strings args = row.args;
        args.insert(args.begin(), "kelmdaemon");
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        CommandLineParser parser;
        EXPECT_EQ(parser.parse(static_cast<int>(argv.size()), argv.data()), row.runs);
        EXPECT_EQ(parser.isRunAsDaemon(), row.daemon);
        EXPECT_EQ(parser.getServiceConfigFiles(), row.configFiles);
        EXPECT_EQ(parser.getBootConfigFiles(), row.bootFiles);
    }
}

}  // namespace
}  // namespace kelm
