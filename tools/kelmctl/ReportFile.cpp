#include "tools/kelmctl/ReportFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kelm::ctl {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace

ReportFile::ReportFile(std::string path) : m_path(std::move(path)) {
    if (m_path.empty()) return;
    m_fd.reset(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!m_fd) fail(m_path);
}

void ReportFile::write(std::string_view text) const {
    if (!m_fd) return;
    // A pipe or a terminal has no size, and needs none.
    if (::ftruncate(m_fd.get(), 0) != 0 && errno != EINVAL) fail(m_path);
    while (!text.empty()) {
        const ssize_t count = ::write(m_fd.get(), text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(m_path);
        text.remove_prefix(static_cast<size_t>(count));
    }
}

}  // namespace kelm::ctl
