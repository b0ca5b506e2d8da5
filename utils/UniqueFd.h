#pragma once

#include <unistd.h>

#include <utility>

namespace kelm {

// Owns a file descriptor and closes it; -1 is none.
class UniqueFd {
 public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1) {
        const int old = std::exchange(m_fd, fd);
        if (old >= 0 && old != fd) ::close(old);
    }

 private:
    int m_fd = -1;
};

}  // namespace kelm
