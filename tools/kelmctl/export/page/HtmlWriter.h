#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "utils/NonCopyable.h"

namespace kelm::ctl {

// Writes HTML and SVG. Nothing that is given here can end an element or an attribute: texts and
// values are escaped, and of their characters those that show nothing, turn the direction of what
// follows, or are no UTF-8 become U+FFFD. Tags and names of attributes are constants of the caller.
//
// Threads: one.
class HtmlWriter {
 public:
    using Attributes = std::initializer_list<std::pair<std::string_view, std::string_view>>;

    // An element that is open for the life of the object: those within it go first.
    class Element : public NonCopyable {
     public:
        Element(HtmlWriter& html, std::string_view tag, Attributes attributes);
        ~Element();

     private:
        HtmlWriter& m_html;
        const std::string_view m_tag;
    };

    // One that has no content in HTML, or stands closed in itself in SVG.
    void empty(std::string_view tag, Attributes attributes);
    void leaf(std::string_view tag, std::string_view text, Attributes attributes = {});
    void text(std::string_view text);
    // What a client or a device calls itself: apart from the direction of the text around it, and
    // when it is long its head and tail.
    void name(std::string_view name);

    const std::string& str() const { return m_html; }

 private:
    void open(std::string_view tag, Attributes attributes);

    std::string m_html;
};

}  // namespace kelm::ctl
