#include "utils/AppendOnlyFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "utils/Log.h"
#include "utils/PlainFile.h"

namespace kelm {

namespace {

constexpr mode_t kMode = 0644;
constexpr const char* kForeign = "the file is not this service's own";

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

// Opened anew each time: a file that was taken away meanwhile is made again, and none stays open
// between two saves. A failure that repeats itself is told once.
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
    UniqueFd file = PlainFile::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC, kMode,
                                    PlainFile::Owner::THIS_USER);
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0) {
        const bool foreign = errno == EPERM || errno == EMLINK || errno == EINVAL;
        reason = foreign ? kForeign : errnoText();
        return UniqueFd();
    }
    // An empty one is new, since the one that was opened last has been taken away.
    if (m_known && info.st_size != 0 && (info.st_dev != m_device || info.st_ino != m_inode)) {
        reason = kForeign;
        return UniqueFd();
    }
    m_known = true;
    m_device = info.st_dev;
    m_inode = info.st_ino;
    return file;
}

}  // namespace kelm
