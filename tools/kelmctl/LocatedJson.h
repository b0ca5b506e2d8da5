#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kelm::ctl {

// A place in a text, both from 1; columns are characters of UTF-8.
struct TextPlace {
    int line = 0;
    int column = 0;
};

// A text that is no JSON: what() is what was expected, where the text does not go on.
struct LocatedJsonError : std::runtime_error {
    LocatedJsonError(const std::string& what, TextPlace where)
        : std::runtime_error(what), place(where) {}

    TextPlace place;
};

// A JSON value that knows where it stands, for messages about files that people write.
//
// Threads: any.
struct LocatedJson {
    enum class Kind { kNull, kBoolean, kNumber, kString, kArray, kObject };
    struct Member;

    // Throws LocatedJsonError. Arrays and objects may lie in each other `maxNesting` deep.
    static LocatedJson parse(const std::string& text, int maxNesting);

    bool isContainer() const { return kind == Kind::kArray || kind == Kind::kObject; }

    Kind kind = Kind::kNull;
    std::string
        text;  // of a string without quotes and escapes, else as it stands; of containers none
    TextPlace place;
    std::vector<Member> members;  // of an array without names; equal names are kept
};

struct LocatedJson::Member {
    std::string name;
    TextPlace place;  // of the name
    LocatedJson value;
};

}  // namespace kelm::ctl
