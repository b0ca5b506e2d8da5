#include "tools/gateway/ModelFolder.h"

#include <sys/inotify.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

namespace kelm::gateway {

namespace {

constexpr uintmax_t kLargestDescription = 1 << 20;

std::string readText(const std::filesystem::directory_entry& file) {
    std::error_code unreadable;
    if (file.file_size(unreadable) > kLargestDescription || unreadable) return {};
    std::ifstream stream(file.path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

ModelFolder::ModelFolder(std::string path)
    : m_path(std::move(path)), m_watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    constexpr uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_ONLYDIR;
    if (::inotify_add_watch(m_watch.get(), m_path.c_str(), kEvents) < 0) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot watch the folder of models '" + m_path + "'");
    }
}

void ModelFolder::takeChanges() const {
    char events[4096];
    while (::read(m_watch.get(), events, sizeof(events)) > 0) {
    }
}

std::map<std::string, std::string> ModelFolder::read() const {
    std::map<std::string, std::string> texts;
    for (const auto& each : std::filesystem::directory_iterator(m_path)) {
        const auto& path = each.path();
        const std::string name = path.stem().string();
        if (path.extension() != ".json" || name.starts_with('.')) continue;
        texts[name] = readText(each);
    }
    return texts;
}

std::string ModelFolder::resolve(const std::string& file) const {
    return (std::filesystem::absolute(m_path) / file).string();
}

}  // namespace kelm::gateway
