#include "tests/frozen/FrozenSession.h"

#include <iomanip>

namespace kelm {
namespace {

constexpr size_t kBytesInLine = 16;

void readLine(const std::string& line, FrozenSession& session) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (first.empty() || first[0] == '#') return;
    if (first == "=") return session.outcomes.push_back(line.substr(2));
    if (first == ">" || first == "<" || first == "*") {
        size_t size = 0;
        FrozenRecord record{FrozenRecord::Way{first[0]}, {}, {}};
        if (!(words >> record.name >> size)) throw std::runtime_error("no name and size");
        record.bytes.resize(size);
        return session.records.push_back(record);
    }
    FrozenRecord& record = session.records.at(session.records.size() - 1);
    if (first == "$") {
        VaryingField field;
        while (words >> field.name >> field.offset >> field.size) {
            (void)record.bytes.at(field.offset + field.size - 1);
            record.varying.push_back(field);
        }
    } else {
        size_t offset = std::stoul(first);
        for (int byte = 0; words >> std::hex >> byte;) {
            record.bytes.at(offset++) = static_cast<char>(byte);
        }
    }
    if (!words.eof()) throw std::runtime_error("something else than it begins with");
}

}  // namespace

KelmMsgBase FrozenRecord::head() const {
    KelmMsgBase base;
    std::memcpy(&base, bytes.data(), sizeof(base));
    return base;
}

FrozenSession FrozenSession::read(std::istream& text) {
    FrozenSession session;
    int number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        try {
            readLine(line, session);
        } catch (const std::exception& error) {
            throw std::runtime_error("line " + std::to_string(number) + ": " + error.what());
        }
    }
    return session;
}

void FrozenSession::write(std::ostream& text) const {
    for (const FrozenRecord& record : records) {
        text << static_cast<char>(record.way) << ' ' << record.name << ' ' << record.bytes.size();
        for (size_t at = 0; at < record.bytes.size(); at += kBytesInLine) {
            const std::string row = record.bytes.substr(at, kBytesInLine);
            const size_t last = row.find_last_not_of('\0');
            if (last == row.npos) continue;
            text << "\n    " << std::dec << at << ':' << std::hex << std::setfill('0');
            for (size_t i = 0; i <= last; ++i) text << ' ' << std::setw(2) << (row[i] & 0xff);
        }
        text << std::dec << (record.varying.empty() ? "" : "\n    $");
        for (const VaryingField& field : record.varying) {
            text << ' ' << field.name << ' ' << field.offset << ' ' << field.size;
        }
        text << '\n';
    }
    for (const std::string& outcome : outcomes) text << "= " << outcome << '\n';
}

}  // namespace kelm
