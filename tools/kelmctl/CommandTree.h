#pragma once

#include <functional>
#include <vector>

namespace CLI {
class App;
}

namespace kelm::ctl {

// A command and what runs it once the command line has been read.
struct Command {
    CLI::App* app;  // of the parser that it was added to
    std::function<int()> run;
};

// Gives the parser all commands and options of kelmctl. Help, manual pages, completion and the
// tables in docs/ are made from it: an option's type name tells the kind of its value, and is
// kFileKind where the shell can complete it.
std::vector<Command> addCommands(CLI::App& app);

constexpr const char* kFileKind = "FILE";

}  // namespace kelm::ctl
