#pragma once

#include <cstddef>
#include <memory>

#include "protocol/src/KelmMessage.h"
#include "utils/NonCopyable.h"
#include "utils/PeerCredentials.h"

namespace kelm {

// The three tensor buffers of a task. Its destruction closes their descriptors and takes back what
// was mapped for them.
//
// Threads: the one that works on the task. Owns: the descriptors and mappings of the buffers.
class KelmTaskParam : public NonCopyable {
 public:
    // The caller owns the result. The buffers come by value, their descriptors become owned. What
    // they name is opened for the peer.
    static KelmTaskParam* create(
        const KelmBuffer& input, const KelmBuffer& output, const KelmBuffer& aux,
        std::shared_ptr<const PeerCredentials> peer = PeerCredentials::ofThisProcess());
    ~KelmTaskParam();

    // Blocks come from a free list: one is made and given back for every task.
    static void* operator new(size_t size);
    static void operator delete(void* block);

    KelmBuffer& getInputBuffer() { return m_inputBuffer; }
    KelmBuffer& getOutputBuffer() { return m_outputBuffer; }
    KelmBuffer& getAuxBuffer() { return m_auxBuffer; }
    const PeerCredentials& getPeer() const { return *m_peer; }
    // Whether its end may take long: it unmaps memory, or closes descriptors, with the last of
    // which memory ends.
    bool mayWaitAtEnd() const {
        for (const KelmBuffer* buffer : {&m_inputBuffer, &m_outputBuffer, &m_auxBuffer}) {
            if (buffer->buffer != 0 || buffer->shareMemory != 0 || buffer->fd > 0) return true;
        }
        return false;
    }
    void setOutputBufferProvided(bool provided) { m_outputBufferProvided = provided; }
    void setAuxBufferProvided(bool provided) { m_auxBufferProvided = provided; }
    bool isOutputBufferProvided() const { return m_outputBufferProvided; }
    bool isAuxBufferProvided() const { return m_auxBufferProvided; }

 private:
    KelmTaskParam(const KelmBuffer& input, const KelmBuffer& output, const KelmBuffer& aux,
                  std::shared_ptr<const PeerCredentials> peer);
    static void releaseBuffer(KelmBuffer& buffer);

    KelmBuffer m_inputBuffer;
    KelmBuffer m_outputBuffer;
    KelmBuffer m_auxBuffer;
    bool m_outputBufferProvided = false;
    bool m_auxBufferProvided = false;
    const std::shared_ptr<const PeerCredentials> m_peer;
};

}  // namespace kelm
