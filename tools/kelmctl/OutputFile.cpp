#include "tools/kelmctl/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "utils/UniqueMalloc.h"

namespace kelm::ctl {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& fix) {
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno) + "; " + fix);
}

mode_t modeOfNewFiles() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : m_path(path), m_target(path) {
    struct stat info {};
    const bool exists = ::stat(path.c_str(), &info) == 0;
    m_isPlain = !exists || S_ISREG(info.st_mode);
    if (m_isPlain) {
        if (exists && ::access(path.c_str(), W_OK) != 0) fail(path, "it is protected");
        openBeside();
        (void)::fchmod(m_file.get(), exists ? info.st_mode & 0777 : modeOfNewFiles());
    } else {
        m_file.reset(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!m_file) fail(path, "give a file for the output");
    }
}

OutputFile::~OutputFile() {
    if (!m_new.empty()) ::unlink(m_new.c_str());
}

void OutputFile::openBeside() {
    const UniqueMalloc<char> real(::realpath(m_path.c_str(), nullptr));
    if (real) m_target = real.get();
    m_new = m_target + ".XXXXXX";
    m_file.reset(::mkostemp(m_new.data(), O_CLOEXEC));
    if (m_file) return;
    m_new.clear();
    fail(m_path, "give a file in a directory that is there and that this user may write to");
}

void OutputFile::write(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(m_file.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(m_path, "it was left as it was");
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    if (m_new.empty()) return;
    if (::rename(m_new.c_str(), m_target.c_str()) != 0) fail(m_path, "it was left as it was");
    m_new.clear();
}

}  // namespace kelm::ctl
