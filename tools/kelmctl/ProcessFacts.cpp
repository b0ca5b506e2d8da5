#include "tools/kelmctl/ProcessFacts.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>

namespace kelm::ctl {

std::string ProcessFacts::describe() const {
    if (m_pid <= 0) return "a process of another pid namespace";
    // Of the program: the name of the process is its first thread's, which may be any.
    std::ifstream file(directory() + "/cmdline");
    std::string program;
    if (!std::getline(file, program, '\0')) program = "not to be seen from here";
    return fmt::format("process {} ({})", m_pid, program.substr(program.rfind('/') + 1));
}

std::optional<uint64_t> ProcessFacts::descriptorLimit() const {
    std::istringstream fields(findLine("limits", "Max open files"));
    std::string limit;
    fields >> limit;
    if (limit == "unlimited") return std::numeric_limits<uint64_t>::max();
    if (limit.empty()) return std::nullopt;
    return std::stoull(limit);
}

std::optional<uint64_t> ProcessFacts::descriptorCount() const {
    std::error_code error;
    const std::filesystem::directory_iterator all(directory() + "/fd", error);
    if (error) return std::nullopt;
    return static_cast<uint64_t>(std::distance(begin(all), end(all)));
}

std::optional<uint64_t> ProcessFacts::statusNumber(const std::string& key) const {
    std::istringstream fields(findLine("status", key + ":"));
    uint64_t number = 0;
    fields >> number;
    return fields ? std::optional(number) : std::nullopt;
}

// The effective one.
std::optional<uid_t> ProcessFacts::user() const {
    std::istringstream fields(findLine("status", "Uid:"));
    uid_t real = 0;
    uid_t effective = 0;
    fields >> real >> effective;
    return fields ? std::optional(effective) : std::nullopt;
}

std::vector<gid_t> ProcessFacts::groups() const {
    std::vector<gid_t> all;
    for (const char* line : {"Gid:", "Groups:"}) {
        std::istringstream fields(findLine("status", line));
        all.insert(all.end(), std::istream_iterator<gid_t>(fields), {});
    }
    return all;
}

std::string ProcessFacts::findLine(const std::string& file, const std::string& begin) const {
    std::ifstream lines(directory() + "/" + file);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(begin)) return line.substr(begin.size());
    }
    return "";
}

}  // namespace kelm::ctl
