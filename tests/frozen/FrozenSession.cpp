#include "tests/frozen/FrozenSession.h"

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace kelm {
namespace {

constexpr size_t kWord = 4;
constexpr size_t kBytesInLine = 16;
constexpr std::string_view kBlockMark = "block+";

std::string hexOf(std::string_view bytes) {
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (const char byte : bytes) text << ' ' << std::setw(2) << (byte & 0xff);
    return text.str();
}

std::string_view withoutLastZeros(std::string_view bytes) {
    return bytes.substr(0, bytes.find_last_not_of('\0') + 1);  // npos + 1 is 0
}

// Bytes `from` to `to`, without words of 0, so that most fields have a line of their own.
void writeBytes(std::ostream& text, std::string_view label, std::string_view bytes, size_t from,
                size_t to) {
    const auto wordAt = [=](size_t at) {
        return withoutLastZeros(bytes.substr(at, std::min(kWord - at % kWord, to - at)));
    };
    const auto nextWord = [=](size_t at) { return std::min(to, (at / kWord + 1) * kWord); };
    while (from < to) {
        size_t end = from;
        while (end < to && end - from < kBytesInLine && !wordAt(end).empty()) end = nextWord(end);
        if (end > from) {
            const auto line = withoutLastZeros(bytes.substr(from, end - from));
            text << "    " << label << from << ':' << hexOf(line) << '\n';
        }
        from = std::max(end, nextWord(from));
    }
}

void writeRecord(std::ostream& text, const FrozenRecord& record) {
    text << static_cast<char>(record.way) << ' ' << record.name << ' ' << record.bytes.size()
         << " descriptors " << record.descriptors << " block " << record.block.size() << '\n';
    size_t next = 0;
    for (const VaryingField& field : record.varying) {
        writeBytes(text, "", record.bytes, next, field.offset);
        next = field.offset + field.size;
        const auto bytes = std::string_view(record.bytes).substr(field.offset, field.size);
        text << "    " << field.offset << ": $" << field.name << ' ' << field.size << " ="
             << hexOf(withoutLastZeros(bytes)) << '\n';
    }
    writeBytes(text, "", record.bytes, next, record.bytes.size());
    writeBytes(text, kBlockMark, record.block, 0, record.block.size());
}

void require(bool holds) {
    if (!holds) throw std::runtime_error("is not of the form of a frozen session");
}

FrozenRecord readHead(char way, std::istream& words) {
    FrozenRecord record{FrozenRecord::Way{way}, {}, {}};
    std::string descriptors;
    std::string block;
    size_t size = 0;
    size_t blockSize = 0;
    words >> record.name >> size >> descriptors >> record.descriptors >> block >> blockSize;
    require(words && descriptors == "descriptors" && block == "block");
    record.bytes.resize(size);
    record.block.resize(blockSize);
    return record;
}

void readHex(std::istream& words, std::string& bytes, size_t offset) {
    for (unsigned byte = 0; words >> std::hex >> byte; ++offset) {
        require(offset < bytes.size() && byte <= 0xff);
        bytes[offset] = static_cast<char>(byte);
    }
    require(words.eof());
}

// `words` is the rest of a line that has begun with `place`.
void readBytes(std::string place, std::istream& words, FrozenRecord& record) {
    const bool isBlock = place.starts_with(kBlockMark);
    if (isBlock) place.erase(0, kBlockMark.size());
    require(place.size() > 1 && place.find_first_not_of("0123456789") == place.size() - 1);
    const size_t offset = std::stoul(place);
    if ((words >> std::ws).peek() == '$') {
        VaryingField field{offset, 0, {}};
        std::string equals;
        words.get();
        words >> field.name >> field.size >> equals;
        require(words && equals == "=" && !isBlock);
        require(offset < record.bytes.size() && field.size <= record.bytes.size() - offset);
        record.varying.push_back(field);
    }
    readHex(words, isBlock ? record.block : record.bytes, offset);
}

void readLine(const std::string& line, FrozenSession& session) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (first.empty() || first[0] == '#') return;
    if (first == "=") return session.outcomes.push_back(line.substr(2));
    if (first == ">" || first == "<" || first == "*") {
        return session.records.push_back(readHead(first[0], words));
    }
    require(!session.records.empty());
    readBytes(first, words, session.records.back());
}

}  // namespace

FrozenSession FrozenSession::read(std::istream& text) {
    FrozenSession session;
    int number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        try {
            readLine(line, session);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("line " + std::to_string(number) + " " + error.what());
        }
    }
    return session;
}

FrozenSession FrozenSession::load(const std::string& path) {
    std::ifstream file(path);
    FrozenSession session = read(file);
    if (session.records.empty()) throw std::runtime_error("no frozen session in " + path);
    return session;
}

void FrozenSession::write(std::ostream& text) const {
    for (const FrozenRecord& record : records) writeRecord(text, record);
    for (const std::string& outcome : outcomes) text << "= " << outcome << '\n';
}

}  // namespace kelm
