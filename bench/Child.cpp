#include "bench/Child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "utils/UniqueFd.h"

namespace kelm::bench {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

// Everything is prepared before the fork: other threads may hold the allocator's locks then.
Child::Child(std::vector<std::string> arguments, std::vector<std::string> environment)
    : m_program(arguments.front()) {
    for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> variables = pointers(environment);  // the first of a name counts
    const UniqueFd dropped(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    m_pid = ::fork();
    if (m_pid < 0) throw std::runtime_error("cannot fork");
    if (m_pid == 0) {
        ::dup2(dropped.get(), STDOUT_FILENO);
        ::raise(SIGSTOP);
        ::execve(argv[0], argv.data(), variables.data());
        ::_exit(127);
    }
    ::waitpid(m_pid, nullptr, WUNTRACED);
}

Child::~Child() {
    if (m_pid < 0) return;
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
}

ProcessCounts Child::wait() {
    rusage usage{};
    int status = 0;
    ::kill(m_pid, SIGCONT);
    ::wait4(m_pid, &status, 0, &usage);
    m_pid = -1;
    if (status != 0) {
        throw std::runtime_error(m_program + " ended with status " + std::to_string(status));
    }
    return ProcessCounts(usage);
}

}  // namespace kelm::bench
