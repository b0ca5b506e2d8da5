#pragma once

#include "tests/frozen/FrozenSession.h"
#include "utils/StringHelper.h"

namespace kelm {

// The varying fields of one replay: what is sent or received first under a name holds from then on.
class FrozenFields {
 public:
    void set(const std::string& name, const std::string& bytes) { m_values[name] = bytes; }

    // The record as this replay is to send it.
    std::string fill(const FrozenRecord& record) { return resolve(record, record.bytes); }
    // Nothing, or the first byte in which as many bytes that have come are not as frozen.
    std::string compare(const FrozenRecord& record, const std::string& received) {
        const std::string frozen = resolve(record, received);
        const auto [one, other] = std::ranges::mismatch(frozen, received);
        if (one == frozen.end()) return {};
        return StringHelper::format("%s: byte %d is %02x, frozen as %02x", record.name,
                                    one - frozen.begin(), *other & 0xff, *one & 0xff);
    }

 private:
    // The frozen bytes, with fields that have no value yet as `fresh` has them.
    std::string resolve(const FrozenRecord& record, const std::string& fresh) {
        std::string bytes = record.bytes;
        for (const VaryingField& field : record.varying) {
            const std::string found = fresh.substr(field.offset, field.size);
            const bool isFree = field.name == VaryingField::kAny;
            bytes.replace(field.offset, field.size,
                          isFree ? found : m_values.emplace(field.name, found).first->second);
        }
        return bytes;
    }

    std::map<std::string, std::string> m_values;
};

}  // namespace kelm
