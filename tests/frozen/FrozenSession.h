#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace kelm {

// Bytes of a record that differ from run to run. Fields of one name hold the same bytes throughout
// a session, but for those named kAny.
struct VaryingField {
    static constexpr const char* kAny = "any";

    size_t offset = 0;
    size_t size = 0;
    std::string name;
};

// What once went over a socket of the service in one piece.
struct FrozenRecord {
    enum class Way : char { kToService = '>', kToClient = '<', kSnapshot = '*' };

    Way way = Way::kToService;
    std::string name;  // its type, and the how many-th of it: "INFER_TASK_REQ.2"
    std::string bytes;
    std::vector<VaryingField> varying = {};
    size_t descriptors = 0;  // that follow
    std::string block = {};  // that follows them
};

// All that a client of the library and the service have told one another, in order, and how the
// library's calls have ended. As text:
//
//   > NAME SIZE descriptors COUNT block SIZE    a record, for "*" and "<" likewise
//      OFFSET: hh hh ...                        bytes of it; all that are not listed are 00
//      OFFSET: $NAME SIZE = hh hh ...           a varying field, with its bytes at the recording
//      block+OFFSET: hh hh ...
//   = TEXT                                      how a call has ended
//   # TEXT                                      a comment
struct FrozenSession {
    // Both throw a std::runtime_error that names what is wrong.
    static FrozenSession read(std::istream& text);
    static FrozenSession load(const std::string& path);
    void write(std::ostream& text) const;

    std::vector<FrozenRecord> records;
    std::vector<std::string> outcomes;
};

}  // namespace kelm
