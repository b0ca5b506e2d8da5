#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessagePtr.h"

namespace kelm {

// The bytes of an input, read as decisions; zeros once they have come to their end.
class FuzzInput {
 public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    bool isEmpty() const { return m_size == 0; }
    template <class Number = uint8_t>
    Number take() {
        Number number{};
        const size_t count = std::min(sizeof(number), m_size);
        std::memcpy(&number, m_data, count);
        advance(count);
        return number;
    }
    size_t below(size_t limit) { return take() % limit; }
    // Up to so many bytes, fewer if there are no more.
    std::string text(size_t size) {
        const size_t count = std::min(size, m_size);
        const std::string text(reinterpret_cast<const char*>(m_data), count);
        advance(count);
        return text;
    }
    std::string rest() { return text(m_size); }

    // Puts up to three numbers anywhere into a record: those that break arithmetic and bounds, or
    // others.
    void patch(std::string& record) {
        constexpr uint32_t kNumbers[] = {0,  1,  2,   3,    5,          6,         8,
                                         10, 11, 255, 5000, 0x7fffffff, 0xffffffff};
        for (size_t i = below(4); i > 0 && record.size() >= sizeof(uint32_t); --i) {
            const size_t at = take<uint16_t>() % (record.size() / sizeof(uint32_t));
            const size_t which = below(2 * std::size(kNumbers));
            const uint32_t number =
                which < std::size(kNumbers) ? kNumbers[which] : take<uint32_t>();
            std::memcpy(record.data() + at * sizeof(number), &number, sizeof(number));
        }
    }

 private:
    void advance(size_t count) {
        m_data += count;
        m_size -= count;
    }

    const uint8_t* m_data;
    size_t m_size;
};

// The bytes of an empty record of a type; of one that has none a bare head.
inline std::string makeRecord(uint32_t type) {
    const MessagePtr message(kelmAllocMessage(static_cast<KelmMsgType>(type)));
    if (message) return {reinterpret_cast<const char*>(message.get()), message->size};
    std::string head(sizeof(KelmMsgBase), '\0');
    std::memcpy(head.data() + offsetof(KelmMsgBase, type), &type, sizeof(type));
    return head;
}

}  // namespace kelm
