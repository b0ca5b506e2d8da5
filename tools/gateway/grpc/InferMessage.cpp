#include "tools/gateway/grpc/InferMessage.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>
#include <grpcpp/support/proto_buffer_reader.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"

namespace kelm::gateway {

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;
using Request = inference::ModelInferRequest;

constexpr int kMostVarintBytes = 5;  // of a tag or a length, which have 32 bits

constexpr uint32_t tagOf(int field) {
    return WireFormatLite::MakeTag(field, WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
}

template <class T>
void append(std::string& text, T value) {
    text.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void appendVarint(std::string& text, uint64_t value) {
    constexpr uint64_t kMore = 0x80;
    for (; value >= kMore; value >>= 7) text += static_cast<char>(value | kMore);
    text += static_cast<char>(value);
}

// Parts the raw contents from all else, whose fields it gathers as they are for the generated
// parser.
class Parter {
 public:
    Parter(CodedInputStream& in, InferMessage& message, size_t mostText)
        : m_in(in), m_message(message), m_mostText(mostText) {}

    // False if it is no message.
    bool run() {
        while (const uint32_t tag = readTag()) {
            if (tag == tagOf(Request::kInputsFieldNumber)) limitTensors(++m_inputs);
            if (tag == tagOf(Request::kOutputsFieldNumber)) limitTensors(++m_outputs);
            const bool isRaw = tag == tagOf(Request::kRawInputContentsFieldNumber);
            if (!(isRaw ? readRaw() : readOther(tag))) return false;
            if (m_text.size() > m_mostText) refuseText();
        }
        return m_in.ConsumedEntireMessage() && m_message.request.ParseFromString(m_text);
    }

 private:
    static void limitTensors(size_t count) {
        if (count <= kMostTensors) return;
        throw Failure(Cause::kInvalid, "the request has more than " + std::to_string(kMostTensors) +
                                           " inputs or outputs");
    }
    [[noreturn]] void refuseText() const {
        throw Failure(Cause::kTooLarge, "the request is larger than " + std::to_string(m_mostText) +
                                            " bytes without raw contents; send tensors as those");
    }

    // Whether the number that was read from `begin` on is as short as the generated parser wants
    // it: two readers of one message must agree on what is none.
    bool isShort(int begin) const { return m_in.CurrentPosition() - begin <= kMostVarintBytes; }

    // 0 at the end, and for what is no tag.
    uint32_t readTag() {
        const int begin = m_in.CurrentPosition();
        const uint32_t tag = m_in.ReadTag();
        return isShort(begin) ? tag : 0;
    }

    std::optional<size_t> readLength() {
        const int begin = m_in.CurrentPosition();
        int length = 0;
        if (!m_in.ReadVarintSizeAsInt(&length) || !isShort(begin)) return std::nullopt;
        return static_cast<size_t>(length);
    }

    bool readRaw() {
        const auto length = readLength();
        if (!length) return false;
        limitTensors(m_message.raw.size() + 1);
        RawContent& content = m_message.raw.emplace_back();
        while (content.bytes < *length) {
            const void* data = nullptr;
            int size = 0;
            if (!m_in.GetDirectBufferPointer(&data, &size)) return false;
            const size_t piece = std::min(static_cast<size_t>(size), *length - content.bytes);
            content.pieces.emplace_back(static_cast<const std::byte*>(data), piece);
            content.bytes += piece;
            if (!m_in.Skip(static_cast<int>(piece))) return false;
        }
        return true;
    }

    bool readOther(uint32_t tag) {
        appendVarint(m_text, tag);
        uint64_t value = 0;
        switch (WireFormatLite::GetTagWireType(tag)) {
            case WireFormatLite::WIRETYPE_VARINT:
                if (!m_in.ReadVarint64(&value)) return false;
                appendVarint(m_text, value);
                return true;
            case WireFormatLite::WIRETYPE_FIXED64:
                if (!m_in.ReadLittleEndian64(&value)) return false;
                append(m_text, value);
                return true;
            case WireFormatLite::WIRETYPE_FIXED32: {
                uint32_t word = 0;
                if (!m_in.ReadLittleEndian32(&word)) return false;
                append(m_text, word);
                return true;
            }
            case WireFormatLite::WIRETYPE_LENGTH_DELIMITED:
                return readText();
            default:
                return false;  // groups, which the protocol has none of
        }
    }

    bool readText() {
        const auto length = readLength();
        if (!length) return false;
        if (*length > m_mostText) refuseText();
        appendVarint(m_text, *length);
        std::string bytes;
        if (!m_in.ReadString(&bytes, static_cast<int>(*length))) return false;
        m_text += bytes;
        return true;
    }

    CodedInputStream& m_in;
    InferMessage& m_message;
    const size_t m_mostText;
    std::string m_text;
    size_t m_inputs = 0;
    size_t m_outputs = 0;
};

}  // namespace

void RawContent::copyTo(std::span<std::byte> room) const {
    for (size_t at = 0; const auto& piece : pieces) {
        std::memcpy(room.data() + at, piece.data(), piece.size());
        at += piece.size();
    }
}

InferMessage InferMessage::read(grpc::ByteBuffer& message, size_t mostText) {
    InferMessage result;
    grpc::ProtoBufferReader reader(&message);
    CodedInputStream in(&reader);
    if (!reader.status().ok() || !Parter(in, result, mostText).run()) {
        throw Failure(Cause::kInvalid, "the message is no ModelInferRequest");
    }
    return result;
}

}  // namespace kelm::gateway
