#include "utils/AppendOnlyFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "utils/Log.h"

namespace kelm {

namespace {

// Not blocking, for a pipe that somebody planted would hold the caller.
constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr mode_t kMode = 0644;

std::string errnoText() { return std::generic_category().message(errno); }

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// Part of a line would spoil the next one, so what a failed write has left is taken back.
void appendWhole(int fd, std::string_view text, std::string& reason) {
    struct stat before {};
    if (::fstat(fd, &before) == 0 && writeAll(fd, text)) return;
    reason = errnoText();
    if (::ftruncate(fd, before.st_size) != 0) reason += ", and part of the text stays";
}

}  // namespace

AppendOnlyFile::AppendOnlyFile(std::string path) : m_path(std::move(path)) {}

bool AppendOnlyFile::append(std::string_view text) {
    std::string reason;
    if (const UniqueFd file = open(reason)) appendWhole(file.get(), text, reason);
    if (!reason.empty() && reason != m_lastReason) {
        LOG_ERROR("Error: cannot write to %s: %s", m_path, reason);
    }
    m_lastReason = std::move(reason);
    return m_lastReason.empty();
}

UniqueFd AppendOnlyFile::open(std::string& reason) {
    UniqueFd file(::open(m_path.c_str(), kFlags));
    const bool fresh = !file && errno == ENOENT;
    if (fresh) file.reset(::open(m_path.c_str(), kFlags | O_CREAT | O_EXCL, kMode));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0) {
        reason = errnoText();
        return UniqueFd();
    }
    if (!fresh && !isTrusted(info)) {
        reason = "the file is not this service's own";
        return UniqueFd();
    }
    m_known = true;
    m_device = info.st_dev;
    m_inode = info.st_ino;
    return file;
}

bool AppendOnlyFile::isTrusted(const struct stat& info) const {
    if (m_known) return info.st_dev == m_device && info.st_ino == m_inode;
    return S_ISREG(info.st_mode) && info.st_uid == ::geteuid() && info.st_nlink == 1;
}

}  // namespace kelm
