#include "tools/kelmctl/LocatedJson.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace kelm::ctl {

namespace {

using Kind = LocatedJson::Kind;

// The service's reader takes any three bytes for a byte order mark that begin so.
constexpr char kMarkBegin = '\xEF';
constexpr size_t kMarkBytes = 3;

void appendUtf8(std::string& text, uint32_t code) {
    const auto tail = [&](int shift) {
        text += static_cast<char>(0x80u | (code >> static_cast<unsigned>(shift) & 0x3Fu));
    };
    if (code < 0x80) {
        text += static_cast<char>(code);
    } else if (code < 0x800) {
        text += static_cast<char>(0xC0u | code >> 6u);
        tail(0);
    } else if (code < 0x10000) {
        text += static_cast<char>(0xE0u | code >> 12u);
        tail(6);
        tail(0);
    } else {
        text += static_cast<char>(0xF0u | code >> 18u);
        tail(12);
        tail(6);
        tail(0);
    }
}

// One run over a text.
class Reader {
 public:
    Reader(const std::string& text, int maxNesting) : m_text(text), m_levelsLeft(maxNesting) {
        if (m_text.starts_with(kMarkBegin)) m_at = m_placed = std::min(kMarkBytes, m_text.size());
    }

    LocatedJson readAll() {
        LocatedJson value = readValue();
        if (peek() != '\0' || m_at < m_text.size()) fail("expected the end of the file");
        return value;
    }

 private:
    [[noreturn]] void fail(const std::string& what) { throw LocatedJsonError(what, place()); }

    // Counted on from where it was asked for before.
    TextPlace place() {
        for (; m_placed < m_at; ++m_placed) {
            const char c = m_text[m_placed];
            const bool isFirstByte = (static_cast<uint8_t>(c) & 0xC0u) != 0x80u;
            if (c == '\n') {
                m_place = {m_place.line + 1, 1};
            } else if (isFirstByte) {
                ++m_place.column;
            }
        }
        return m_place;
    }

    char here() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
    // The next character that is no white space, '\0' at the end.
    char peek() {
        while (here() != '\0' && std::string_view(" \t\r\n").find(here()) != std::string_view::npos)
            ++m_at;
        return here();
    }
    bool take(char wanted) {
        const bool isThere = here() == wanted && m_at < m_text.size();
        if (isThere) ++m_at;
        return isThere;
    }
    void require(char wanted, const char* what) {
        (void)peek();
        if (!take(wanted)) fail(what);
    }

    LocatedJson readValue() {
        const char first = peek();
        LocatedJson value;
        value.place = place();
        if (first == '{' || first == '[') {
            readContainer(value, first == '{');
        } else if (first == '"') {
            value.kind = Kind::kString;
            value.text = readString();
        } else if (first == '-' || isDigit()) {
            value.kind = Kind::kNumber;
            value.text = readNumber();
        } else {
            readWord(value);
        }
        return value;
    }

    void readContainer(LocatedJson& value, bool isObject) {
        value.kind = isObject ? Kind::kObject : Kind::kArray;
        const char end = isObject ? '}' : ']';
        if (m_levelsLeft-- == 0) fail("objects and arrays lie too deep in each other");
        ++m_at;
        if (peek() != end) {
            do value.members.push_back(readMember(isObject));
            while (peek() == ',' && take(','));
        }
        require(end, isObject ? "expected ',' or '}'" : "expected ',' or ']'");
        ++m_levelsLeft;
    }

    LocatedJson::Member readMember(bool isObject) {
        LocatedJson::Member member;
        if (isObject) {
            if (peek() != '"') fail("expected a name in quotes");
            member.place = place();
            member.name = readString();
            require(':', "expected ':'");
        }
        member.value = readValue();
        return member;
    }

    std::string readString() {
        std::string text;
        ++m_at;
        while (!take('"')) {
            if (static_cast<uint8_t>(here()) < 0x20) fail("expected '\"' at the end of the text");
            if (!take('\\')) {
                text += m_text[m_at++];
            } else {
                readEscape(text);
            }
        }
        return text;
    }

    void readEscape(std::string& text) {
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
        const size_t letter = here() == '\0' ? kLetters.npos : kLetters.find(here());
        if (letter == kLetters.npos) {
            if (!take('u')) fail("no such character can stand behind '\\'");
            appendUtf8(text, readCode());
        } else {
            text += kMeanings[letter];
            ++m_at;
        }
    }

    // Of one character, which may take two numbers.
    uint32_t readCode() {
        const uint32_t high = readHex();
        if (high < 0xD800 || high > 0xDFFF) return high;
        if (high > 0xDBFF || !take('\\') || !take('u')) fail("half of a pair of \\u");
        const uint32_t low = readHex();
        if (low < 0xDC00 || low > 0xDFFF) fail("half of a pair of \\u");
        return 0x10000u + ((high & 0x3FFu) << 10u) + (low & 0x3FFu);
    }

    uint32_t readHex() {
        const std::string digits(m_text.substr(m_at, 4));
        const auto isHex = [](char c) { return std::isxdigit(static_cast<uint8_t>(c)) != 0; };
        if (digits.size() < 4 || !std::ranges::all_of(digits, isHex)) {
            fail("expected four hexadecimal digits");
        }
        m_at += digits.size();
        return static_cast<uint32_t>(std::stoul(digits, nullptr, 16));
    }

    bool isDigit() const { return std::isdigit(static_cast<uint8_t>(here())) != 0; }
    void readDigits() {
        if (!isDigit()) fail("expected a digit");
        while (isDigit()) ++m_at;
    }

    std::string readNumber() {
        const size_t begin = m_at;
        (void)take('-');
        if (!take('0')) readDigits();
        if (take('.')) readDigits();
        if (take('e') || take('E')) {
            if (!take('-')) (void)take('+');
            readDigits();
        }
        return std::string(m_text.substr(begin, m_at - begin));
    }

    void readWord(LocatedJson& value) {
        for (const char* word : {"true", "false", "null"}) {
            if (!m_text.substr(m_at).starts_with(word)) continue;
            value.kind = *word == 'n' ? Kind::kNull : Kind::kBoolean;
            value.text = word;
            m_at += value.text.size();
            return;
        }
        fail("expected a value: a text in quotes, a number, true, false, an object or an array");
    }

    const std::string_view m_text;
    size_t m_at = 0;
    size_t m_placed = 0;  // the place below is that of this character
    TextPlace m_place{1, 1};
    int m_levelsLeft;
};

}  // namespace

LocatedJson LocatedJson::parse(const std::string& text, int maxNesting) {
    return Reader(text, maxNesting).readAll();
}

}  // namespace kelm::ctl
