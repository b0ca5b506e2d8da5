#pragma once

#include "protocol/src/KelmMessage.h"

namespace kelm {

// Bytes of a record that differ from run to run. Fields of one name hold the same bytes throughout
// a session, but for those named kAny.
struct VaryingField {
    static constexpr const char* kAny = "any";

    std::string name;
    size_t offset = 0;
    size_t size = 0;
};

// What once went over a socket of the service in one piece.
struct FrozenRecord {
    enum class Way : char { kToService = '>', kToClient = '<', kSnapshot = '*' };

    // Of what its bytes begin with, unless it is a snapshot: a record tells its own size, how many
    // descriptors follow, and the size of a block that follows them.
    KelmMsgBase head() const;
    size_t recordSize() const { return way == Way::kSnapshot ? bytes.size() : head().size; }
    size_t descriptors() const { return way == Way::kSnapshot ? 0 : head().fdNum; }

    Way way = Way::kToService;
    std::string name;   // its type, and the how many-th of it: "INFER_TASK_REQ.2"
    std::string bytes;  // of the record, and of the block
    std::vector<VaryingField> varying = {};
};

// All that a client of the library and the service have told one another, in order, and how the
// library's calls have ended. As text:
//
//   > NAME SIZE [FIELD OFFSET SIZE]...    a record and its block, for "*" and "<" likewise, and its
//                                         varying fields, whose bytes are those of the recording
//       OFFSET: hh "text" ... OFFSET: ... bytes of it; all that are not listed are 00
//   = TEXT                                how a call has ended
//   # TEXT                                a comment
struct FrozenSession {
    // Throws a std::runtime_error that names the line that is wrong.
    static FrozenSession read(std::istream& text);
    void write(std::ostream& text) const;

    std::vector<FrozenRecord> records;
    std::vector<std::string> outcomes;
};

}  // namespace kelm
