#pragma once

#include <string_view>

#include "tools/kelmctl/export/page/HtmlWriter.h"

namespace kelm::ctl {

// How something does; its shape tells it as well as its colour. The name is its class on the page.
struct PageIcon {
    std::string_view name;
    std::string_view path;
};

constexpr PageIcon kGood{"good", "M3 8.5l3.2 3.2L13 5"};
constexpr PageIcon kAttention{"attention", "M8 2.5L14.5 13.5H1.5ZM8 6.5v3.5M8 11.8v.2"};
constexpr PageIcon kBad{"bad", "M4 4l8 8M12 4l-8 8"};

// Silent for screen readers: words stand beside it.
inline void writeIcon(HtmlWriter& html, const PageIcon& icon) {
    const HtmlWriter::Element svg(
        html, "svg", {{"class", "icon"}, {"viewBox", "0 0 16 16"}, {"aria-hidden", "true"}});
    html.empty("path", {{"d", icon.path}});
}

}  // namespace kelm::ctl
