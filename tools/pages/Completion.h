#pragma once

#include <string>

namespace CLI {
class App;
}

namespace kelm::pages {

// What the shells offer at the cursor: commands, options, and files where an option or an argument
// takes one. Made for bash 4.4 and zsh 5; neither asks a running service.
std::string bashCompletion(const CLI::App& program);
std::string zshCompletion(const CLI::App& program);

}  // namespace kelm::pages
