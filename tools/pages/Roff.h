#pragma once

#include <string>

#include "tools/pages/DocPage.h"

namespace kelm::pages {

// What man(1) formats, of the Markdown that docs/ is written in: headings, paragraphs, lists, code,
// tables. Headings down to `topLevel` become sections of the manual page, those below parts of
// them.
std::string toRoff(const Lines& markdown, size_t topLevel);

}  // namespace kelm::pages
