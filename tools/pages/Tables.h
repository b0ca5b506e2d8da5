#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/pages/CommandFacts.h"
#include "tools/pages/DocPage.h"

namespace kelm::pages {

// The texts of the blocks in docs/, by their names, as Markdown.
using Blocks = std::map<std::string, std::string>;

std::string optionTable(const std::vector<OptionFacts>& options);
// "kelmctl COMMAND": how it is called, and its options.
std::string commandBlock(const CLI::App& command);
// "keys SECTION" for each section of the configuration.
void addKeyBlocks(Blocks& blocks);

}  // namespace kelm::pages
