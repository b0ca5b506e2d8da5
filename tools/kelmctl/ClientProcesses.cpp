#include "tools/kelmctl/ClientProcesses.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace kelm::ctl {

ClientProcesses::~ClientProcesses() {
    signal(SIGKILL);
    while (!m_running.empty()) reap(0);
}

void ClientProcesses::start(const std::function<int()>& client) {
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("cannot start a client process; lower --clients");
    if (pid == 0) ::_exit(runChild(parent, client));
    m_running.push_back(pid);
}

void ClientProcesses::signal(int number) const {
    for (const pid_t pid : m_running) ::kill(pid, number);
}

size_t ClientProcesses::count() {
    reap(WNOHANG);
    return m_running.size();
}

// Nothing is thrown out of it: the stack below is the parent's, and would be unwound here too.
int ClientProcesses::runChild(pid_t parent, const std::function<int()>& client) {
    // A child whose parent is killed ends in order, as by any other signal.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) return 1;  // it died before
    try {
        return client();
    } catch (const std::exception& error) {
        std::cerr << "kelmctl: a client ended with: " << error.what() << "\n";
        return 1;
    }
}

void ClientProcesses::reap(int flags) {
    std::erase_if(m_running, [flags](pid_t pid) { return ::waitpid(pid, nullptr, flags) != 0; });
}

}  // namespace kelm::ctl
