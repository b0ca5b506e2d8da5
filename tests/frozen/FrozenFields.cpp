#include "tests/frozen/FrozenFields.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace kelm {

std::string FrozenFields::resolve(const FrozenRecord& record, const std::string& fresh) {
    std::string bytes = record.bytes;
    for (const VaryingField& field : record.varying) {
        const std::string found = fresh.substr(field.offset, field.size);
        const bool isFree = field.name == VaryingField::kAny;
        const std::string& value =
            isFree ? found : m_values.emplace(field.name, found).first->second;
        bytes.replace(field.offset, field.size, value);
    }
    return bytes;
}

std::string FrozenFields::fill(const FrozenRecord& record) { return resolve(record, record.bytes); }

std::string FrozenFields::compare(const FrozenRecord& record, const std::string& received) {
    return compare(record.name, resolve(record, received), received);
}

std::string FrozenFields::compare(const std::string& name, std::string_view frozen,
                                  std::string_view received) {
    const auto [one, other] =
        std::mismatch(frozen.begin(), frozen.end(), received.begin(), received.end());
    if (one == frozen.end() && other == received.end()) return {};
    std::ostringstream text;
    const auto put = [&text](auto at, auto end) {
        if (at == end) return (void)(text << "none");
        text << std::hex << std::setw(2) << std::setfill('0') << (*at & 0xff);
    };
    text << name << ": byte " << one - frozen.begin() << " is ";
    put(other, received.end());
    text << ", frozen as ";
    put(one, frozen.end());
    return text.str();
}

}  // namespace kelm
