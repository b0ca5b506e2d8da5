#include "managers/FileDigests.h"

namespace kelm {
namespace {

int64_t nanoseconds(const timespec& time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; }

}  // namespace

FileIdentity::FileIdentity(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      size(status.st_size),
      modified(nanoseconds(status.st_mtim)),
      changed(nanoseconds(status.st_ctim)) {}

const std::string* FileDigests::find(const FileIdentity& file) const {
    const auto entry = m_digests.find(file);
    return entry != m_digests.end() ? &entry->second : nullptr;
}

void FileDigests::remember(const FileIdentity& file, const std::string& digest) {
    if (!m_digests.try_emplace(file, digest).second) return;
    m_order.push_back(file);
    if (m_order.size() <= kMost) return;
    m_digests.erase(m_order.front());
    m_order.pop_front();
}

}  // namespace kelm
