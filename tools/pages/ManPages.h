#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/pages/CommandFacts.h"
#include "tools/pages/DocPage.h"

namespace kelm::pages {

// The pages of docs/, by the names of their files.
using Docs = std::map<std::string, DocPage>;

// The page that has the block. Throws if none has.
const DocPage& pageOf(const Docs& docs, const std::string& block);

// Texts of the manual by file, as in "man1/kelmctl.1". Names, synopses and options are those of the
// programs, all else comes from the pages of docs/, whose blocks must be filled.
std::map<std::string, std::string> makeManPages(const CLI::App& kelmctl, const CLI::App& gateway,
                                                const Docs& docs);

}  // namespace kelm::pages
