#pragma once

#include <string_view>

namespace kelm::ctl {

// The files beside this one, as they were when the program was built.
extern const std::string_view kPageHtml;
extern const std::string_view kPageStyle;
extern const std::string_view kPageScript;

}  // namespace kelm::ctl
