#pragma once

#include <map>
#include <string>
#include <string_view>

#include "tests/frozen/FrozenSession.h"

namespace kelm {

// The varying fields of one replay: what is sent or received first under a name holds from then on.
class FrozenFields {
 public:
    void set(const std::string& name, const std::string& bytes) { m_values[name] = bytes; }

    // The record as this replay is to send it.
    std::string fill(const FrozenRecord& record);
    // Nothing, or the first byte in which what has come is not as frozen, in words.
    std::string compare(const FrozenRecord& record, const std::string& received);
    // The same for bytes without varying fields.
    static std::string compare(const std::string& name, std::string_view frozen,
                               std::string_view received);

 private:
    // The frozen bytes, with fields that have no value yet as `fresh` has them.
    std::string resolve(const FrozenRecord& record, const std::string& fresh);

    std::map<std::string, std::string> m_values;
};

}  // namespace kelm
