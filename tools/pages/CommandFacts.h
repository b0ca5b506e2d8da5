#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kelm::pages {

// An option or an argument, as the parser has it.
struct OptionFacts {
    std::vector<std::string>
        names;         // with their dashes, the long one last; of an argument none but its name
    std::string kind;  // of its value; empty: takes none
    std::string byDefault;  // empty: none, or not told
    std::string text;
    bool isArgument = false;  // has its place, no dashes
    bool isRequired = false;
    bool isRepeated = false;
    bool mayGoWithout = false;  // its value may be left out
};

// A command that has options of its own, and no further commands below it.
struct CommandFacts {
    std::string path;  // as in "config check"
    std::string text;
    std::vector<OptionFacts> options;
};

// The options of one command, without the help.
std::vector<OptionFacts> listOptions(const CLI::App& command);
// The command itself or, where it has further ones, these. Their paths begin behind the program.
std::vector<CommandFacts> listLeaves(const CLI::App& command);

// As a user writes it: "-o, --output FILE", "GRAPH".
std::string written(const OptionFacts& option);
std::string synopsis(const CommandFacts& command);

}  // namespace kelm::pages
