#pragma once

#include "protocol/src/KelmMessage.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm {

// A tensor that the service reaches by descriptor or by name.
class SharedTensor : public NonCopyable {
 public:
    SharedTensor(KelmBufferType type, size_t size) : m_type(type), m_size(size) {
        static std::atomic<int> last{0};  // atomic: clients are threads
        m_name = "/" + namePrefix() + std::to_string(++last);
        m_fd.reset(::shm_open(m_name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
        if (!isNamed()) ::shm_unlink(m_name.c_str());
        if (!m_fd) throw std::runtime_error("no shared memory");
        resize(size);
        void* const data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd.get(), 0);
        if (data == MAP_FAILED) throw std::runtime_error("no mapping");
        m_data = static_cast<uint8_t*>(data);
    }
    ~SharedTensor() {
        ::munmap(m_data, m_size);
        if (isNamed()) ::shm_unlink(m_name.c_str());
    }

    // Of the names that this process gives.
    static std::string namePrefix() { return "kelm-test-" + std::to_string(::getpid()) + "-"; }

    std::span<uint8_t> bytes() { return {m_data, m_size}; }
    // What it is called where a process has it mapped, reached by name or not.
    const std::string& name() const { return m_name; }
    // Takes memory back, or gives it; a touch of what was taken is a signal.
    void resize(size_t size) const {
        if (::ftruncate(m_fd.get(), static_cast<off_t>(size)) != 0) {
            throw std::runtime_error("no memory of that size");
        }
    }
    // Whether the name, if it has one, still leads to it: only this object takes it away.
    bool isReachable() const {
        return !isNamed() || ::access(("/dev/shm" + m_name).c_str(), F_OK) == 0;
    }

    // Tells the request of it, in the buffer of the role.
    void attach(KelmMsgReqInferTask& request, KelmFdRole role, std::vector<int>& fds) const {
        KelmBuffer* const buffers[] = {&request.inputBuffer, &request.outputBuffer,
                                       &request.auxBuffer};
        KelmBuffer& buffer = *buffers[role];
        buffer.type = m_type;
        buffer.size = m_size;
        if (isNamed()) {
            m_name.copy(buffer.name, sizeof(buffer.name) - 1);
            return;
        }
        request.head.base.fdType[fds.size()] = role;
        fds.push_back(m_fd.get());
        request.head.base.fdNum = static_cast<uint32_t>(fds.size());
    }

 private:
    bool isNamed() const { return m_type == KELM_BUFFER_SHARE_MEMORY; }

    const KelmBufferType m_type;
    const size_t m_size;
    std::string m_name;
    UniqueFd m_fd;
    uint8_t* m_data = nullptr;
};

}  // namespace kelm
