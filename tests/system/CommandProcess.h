#pragma once

#include <grp.h>
#include <sys/types.h>

#include "utils/NonCopyable.h"

namespace kelm {

// A shell's command that has ended.
struct ShellCommand {
    explicit ShellCommand(const std::string& line) {
        FILE* const pipe = ::popen(("{ " + line + "; } 2>&1").c_str(), "r");
        char bytes[4096];
        for (size_t count = 0; (count = std::fread(bytes, 1, sizeof(bytes), pipe)) > 0;) {
            output.append(bytes, count);
        }
        const int ended = ::pclose(pipe);
        status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    }

    std::string output;
    int status = -1;
};

// kelmctl in the background, leader of a process group of its own. The destructor kills it, if it
// still runs, by its id.
class CommandProcess : public NonCopyable {
 public:
    // What a shell would have behind "kelmctl", and as which user.
    explicit CommandProcess(const std::string& line, uid_t user = ::geteuid()) {
        const std::string command = "exec " KELM_CTL " " + line;
        m_pid = ::fork();
        if (m_pid != 0) return;
        ::setpgid(0, 0);
        const bool isUser = user == ::geteuid() ||
                            (::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 &&
                             ::setresuid(user, user, user) == 0);
        if (isUser) ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        ::_exit(127);
    }
    ~CommandProcess() {
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }

    pid_t pid() const { return m_pid; }
    // Itself and its children.
    std::vector<std::string> processes() const {
        std::vector<std::string> all{std::to_string(m_pid)};
        std::ifstream children("/proc/" + all[0] + "/task/" + all[0] + "/children");
        for (std::string child; children >> child;) all.push_back(child);
        return all;
    }
    // The shared memory that they have.
    std::set<std::string> segments() const {
        std::set<std::string> files;
        for (const std::string& process : processes()) {
            std::ifstream maps("/proc/" + process + "/maps");
            for (std::string word; maps >> word;) {
                if (word.starts_with("/dev/shm/")) files.insert(word);
            }
        }
        return files;
    }

    void signal(int number) const { ::kill(m_pid, number); }
    // The exit status, or 0 less the signal that killed it.
    int wait() {
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

 private:
    pid_t m_pid = -1;
};

}  // namespace kelm
