#pragma once

#include <cstdint>
#include <string>

#include "utils/NonCopyable.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

// What a graph is: its blob, what its clients said of it and what the blob's header tells.
//
// Threads: the setters run before the graph is shared, the rest on any afterwards.
// Owns: the blob.
class GraphContent : public NonCopyable {
 public:
    uint64_t getId() const { return m_id; }
    const std::string& getPath() const { return m_path; }
    // SHA-256 of the blob as 64 lower-case hexadecimal characters; empty without one.
    const std::string& getHash() const { return m_hash; }
    const std::string& getTag() const { return m_tag; }
    const std::string& getStreamId() const { return m_streamId; }
    const char* getData() const { return m_data.get(); }
    uint64_t getDataSize() const { return m_dataSize; }
    int32_t getInterfaceSubclass() const { return m_interfaceSubclass; }
    int32_t getExpectDeviceNumber() const { return m_expectDeviceNumber; }
    uint64_t getInputBufferSize() const { return m_inputBufferSize; }
    uint64_t getOutputBufferSize() const { return m_outputBufferSize; }
    uint64_t getTimeTakensSize() const { return m_timeTakensSize; }
    uint64_t getDebugBufferSize() const { return m_debugBufferSize; }
    uint64_t getThermalBufferSize() const { return m_thermalBufferSize; }
    // The tracer's handle of the first load.
    uint64_t getLoadTraceIndex() const { return m_loadTraceIndex; }

    // A null pointer changes nothing.
    void setTag(const char* tag);
    void setStreamId(const char* streamId);
    void setInterfaceSubclass(int32_t subclass) { m_interfaceSubclass = subclass; }
    void setInputBufferSize(uint64_t size) { m_inputBufferSize = size; }
    void setOutputBufferSize(uint64_t size) { m_outputBufferSize = size; }
    void setTimeTakensSize(uint64_t size) { m_timeTakensSize = size; }
    void setDebugBufferSize(uint64_t size) { m_debugBufferSize = size; }
    void setThermalBufferSize(uint64_t size) { m_thermalBufferSize = size; }
    void setLoadTraceIndex(uint64_t index) { m_loadTraceIndex = index; }

    // Writes the blob; makes the directories of `path`. False on failure, with an ERROR line.
    bool dumpToFile(const std::string& path) const;

 protected:
    GraphContent(uint64_t id, int32_t expectDeviceNumber)
        : m_id(id), m_expectDeviceNumber(expectDeviceNumber) {}
    ~GraphContent() = default;

    // Reads the whole file; without one, data and hash stay empty.
    void readFile(const char* path);
    void copyBuffer(const char* buffer, uint64_t size);
    // Bytes that were read from `path` before, with their digest.
    void takeBytes(const char* path, UniqueMalloc<char> data, uint64_t size, std::string hash);

 private:
    void setBlob(UniqueMalloc<char> data, uint64_t size);

    const uint64_t m_id;
    const int32_t m_expectDeviceNumber;
    std::string m_hash;
    std::string m_path;
    std::string m_tag;
    std::string m_streamId;
    UniqueMalloc<char> m_data;
    uint64_t m_dataSize = 0;
    int32_t m_interfaceSubclass = 0;
    uint64_t m_inputBufferSize = 0;
    uint64_t m_outputBufferSize = 0;
    uint64_t m_timeTakensSize = 0;
    uint64_t m_debugBufferSize = 0;
    uint64_t m_thermalBufferSize = 0;
    uint64_t m_loadTraceIndex = 0;
};

}  // namespace kelm
