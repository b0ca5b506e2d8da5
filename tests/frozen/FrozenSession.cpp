#include "tests/frozen/FrozenSession.h"

#include <iomanip>

namespace kelm {
namespace {

// Of the bytes that follow one another without many zeros, so many make a piece of a line.
constexpr size_t kMostInPiece = 28;
constexpr size_t kMostColumns = 100;
constexpr size_t kLeastText = 3;
const std::string kZeros(3, '\0');  // as many end a piece

bool isPrinted(char byte) { return byte >= ' ' && byte <= '~'; }

// "OFFSET: hh hh "text" OFFSET: ..."
void readBytes(std::istream& words, std::string& bytes) {
    size_t offset = 0;
    while (!(words >> std::ws).eof()) {
        std::string piece;
        if (words.peek() == '"') {
            words >> std::quoted(piece);
        } else if (words >> piece; piece.ends_with(':')) {
            offset = std::stoul(piece);
            continue;
        } else {
            piece = {static_cast<char>(std::stoul(piece, nullptr, 16))};
        }
        for (const char byte : piece) bytes.at(offset++) = byte;
    }
}

// Bytes that follow one another, the first of which is at the offset.
std::string describePiece(size_t offset, const std::string& bytes) {
    std::ostringstream text;
    text << offset << ':' << std::hex << std::setfill('0');
    if (bytes.size() >= kLeastText && std::ranges::all_of(bytes, isPrinted)) {
        text << ' ' << std::quoted(bytes);
    } else {
        for (const char byte : bytes) text << ' ' << std::setw(2) << (byte & 0xff);
    }
    return text.str();
}

void writeBytes(const std::string& bytes, std::ostream& text) {
    size_t column = kMostColumns;
    for (size_t at = 0; (at = bytes.find_first_not_of('\0', at)) != bytes.npos;) {
        const size_t end = std::min(bytes.find(kZeros, at), bytes.size());
        const size_t size = std::min(end - at, kMostInPiece);
        const std::string piece = describePiece(at, bytes.substr(at, size));
        const bool fits = column + 1 + piece.size() <= kMostColumns;
        text << (fits ? " " : "\n    ") << piece;
        column = (fits ? column + 1 : 4) + piece.size();
        at += size;
    }
}

void readLine(const std::string& line, FrozenSession& session) {
    std::istringstream words(line);
    if ((words >> std::ws).eof() || words.peek() == '#') return;
    if (line[0] == ' ')
        return readBytes(words, session.records.at(session.records.size() - 1).bytes);
    if (line[0] == '=') return session.outcomes.push_back(line.substr(2));
    char way = 0;
    size_t size = 0;
    FrozenRecord record;
    if (!(words >> way >> record.name >> size)) throw std::runtime_error("no name and size");
    record.way = FrozenRecord::Way{way};
    record.bytes.resize(size);
    for (VaryingField field; words >> field.name >> field.offset >> field.size;) {
        (void)record.bytes.at(field.offset + field.size - 1);
        record.varying.push_back(field);
    }
    if (!words.eof()) throw std::runtime_error("something else than it begins with");
    session.records.push_back(record);
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
        for (const VaryingField& field : record.varying) {
            text << ' ' << field.name << ' ' << field.offset << ' ' << field.size;
        }
        writeBytes(record.bytes, text);
        text << '\n';
    }
    for (const std::string& outcome : outcomes) text << "= " << outcome << '\n';
}

}  // namespace kelm
