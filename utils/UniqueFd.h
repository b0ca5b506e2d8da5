#pragma once

#include <unistd.h>

#include <utility>

namespace kelm {

// Owns a file descriptor and closes it by `Close`; -1 is none.
template <void (*Close)(int)>
class BasicFd {
 public:
    BasicFd() = default;
    explicit BasicFd(int fd) : m_fd(fd) {}
    BasicFd(BasicFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    BasicFd& operator=(BasicFd&& other) noexcept {
        reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    ~BasicFd() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0 && old != fd) Close(old);
    }

 private:
    int m_fd = -1;
};

// For files of this process's own. What a peer has passed belongs into a PeerFd.
inline void closeNow(int fd) { (void)::close(fd); }
using UniqueFd = BasicFd<closeNow>;

}  // namespace kelm
