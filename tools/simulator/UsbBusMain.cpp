// kelm-usb-bus: runs a program on a mock USB bus with simulated accelerators.
//
// Commands come by the standard input, a line each: "plug 1.2", "unplug 1.2", "order LINE" which
// adds a line to the control file, "faults 7" which orders random faults from that seed on, and
// "orders" which empties the file and ends the faults. What the simulator tells is
// written to the standard error stream. SIGUSR1, SIGTERM and SIGINT go on to the program, whose
// exit status is this one's.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tools/simulator/FaultMix.h"
#include "tools/simulator/SimulatedHost.h"
#include "utils/UniqueFd.h"

namespace kelm::simulator {

namespace {

constexpr const char* kPreload = "libumockdev-preload.so.0";
constexpr int kPollMillis = 20;
constexpr int kFaultTurns = 3;  // polls from one mix of faults to the next
constexpr int kFailure = 127;

struct Options {
    std::string directory;
    std::vector<std::string> devices;
    int returnAfter = 500;
    std::vector<std::string> program;
};

// The mock bus works only in a process that has started with the library.
void startAgainWithPreload(char** argv) {
    const char* preload = ::getenv("LD_PRELOAD");
    if (preload != nullptr && std::string(preload).find(kPreload) != std::string::npos) return;
    ::setenv("LD_PRELOAD", kPreload, 1);
    const char* options = ::getenv("ASAN_OPTIONS");
    const std::string relaxed = "verify_asan_link_order=0";
    ::setenv("ASAN_OPTIONS", (options ? options + (":" + relaxed) : relaxed).c_str(), 1);
    ::execv("/proc/self/exe", argv);
}

// "1.2" or, with a subclass, "1.2:3".
void plug(SimulatedHost& host, const std::string& text) {
    const size_t colon = text.find(':');
    const int subclass = colon == std::string::npos ? 0 : std::stoi(text.substr(colon + 1));
    host.plug(text.substr(0, colon), subclass);
}

// Lines of the standard input, as far as they have come.
class Commands {
 public:
    Commands(SimulatedHost& host, const std::vector<std::string>& devices)
        : m_host(host), m_devices(devices) {}

    // False at the end of the input.
    bool read() {
        char bytes[4096];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof(bytes));
        if (count <= 0) return false;
        m_text.append(bytes, static_cast<size_t>(count));
        for (size_t end = 0; (end = m_text.find('\n')) != std::string::npos;) {
            tryToRun(m_text.substr(0, end));
            m_text.erase(0, end + 1);
        }
        return true;
    }

    // To be called now and then.
    void advance() {
        if (m_faults && ++m_turn % kFaultTurns == 0) m_host.order(m_faults->next());
    }

 private:
    void tryToRun(const std::string& line) {
        try {
            run(line);
        } catch (const std::exception& error) {
            std::cerr << "usb-bus: " << line << ": " << error.what() << std::endl;
        }
    }
    void run(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        std::string rest;
        words >> verb;
        std::getline(words >> std::ws, rest);
        if (verb == "plug") {
            plug(m_host, rest);
        } else if (verb == "unplug") {
            if (!m_host.unplug(rest)) throw std::invalid_argument("no such device");
        } else if (verb == "order" || verb == "orders") {
            if (verb == "orders") m_faults.reset();
            m_orders = verb == "orders" ? "" : m_orders + rest + "\n";
            m_host.order(m_orders);
        } else if (verb == "faults") {
            m_faults.emplace(static_cast<unsigned>(std::stoul(rest)), m_devices);
        } else {
            throw std::invalid_argument("no command");
        }
    }

    SimulatedHost& m_host;
    const std::vector<std::string> m_devices;
    std::optional<FaultMix> m_faults;
    int m_turn = 0;
    std::string m_text;
    std::string m_orders;
};

std::string ownDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

// The child ends with this process, gets its signals as usual again, and leaves the commands on the
// standard input to the parent.
pid_t startProgram(const Options& options, const SimulatedHost& host) {
    for (const std::string& setting : host.environment(ownDirectory())) {
        const size_t at = setting.find('=');
        ::setenv(setting.substr(0, at).c_str(), setting.substr(at + 1).c_str(), 1);
    }
    std::vector<char*> argv;
    for (const std::string& word : options.program) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::execvp(argv[0], argv.data());
    ::_exit(kFailure);
}

sigset_t forwardedSignals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD}) ::sigaddset(&signals, number);
    return signals;
}

void forwardSignal(int signals, pid_t program) {
    signalfd_siginfo info{};
    if (::read(signals, &info, sizeof(info)) != sizeof(info)) return;
    if (info.ssi_signo != SIGCHLD) ::kill(program, static_cast<int>(info.ssi_signo));
}

// Until the program has ended; returns its exit status.
int serve(SimulatedHost& host, const Options& options, pid_t program, int signals) {
    std::vector<std::string> names;
    for (const std::string& device : options.devices) {
        names.push_back(device.substr(0, device.find(':')));
    }
    Commands commands(host, names);
    pollfd sources[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    int status = 0;
    while (::waitpid(program, &status, WNOHANG) != program) {
        for (const std::string& event : host.takeEvents()) {
            std::cerr << "usb-bus: " << event << std::endl;
        }
        commands.advance();
        if (::poll(sources, 2, kPollMillis) <= 0) continue;
        if (sources[0].revents != 0) forwardSignal(signals, program);
        if (sources[1].revents != 0 && !commands.read()) sources[1].fd = -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The signals are blocked before anything is started, so that none is lost between.
int run(const Options& options) {
    const sigset_t signals = forwardedSignals();
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    const UniqueFd signalFd(::signalfd(-1, &signals, SFD_CLOEXEC));
    SimulatedHost host(options.directory, std::chrono::milliseconds(options.returnAfter));
    for (const std::string& device : options.devices) plug(host, device);
    return serve(host, options, startProgram(options, host), signalFd.get());
}

}  // namespace

}  // namespace kelm::simulator

int main(int argc, char** argv) {
    using namespace kelm::simulator;
    startAgainWithPreload(argv);
    Options options;
    CLI::App app("Runs a program on a mock USB bus with simulated accelerators.");
    app.add_option("--dir", options.directory, "directory of the simulator")->required();
    app.add_option("--device", options.devices, "place on the bus, 1.2 or 1.2:SUBCLASS");
    app.add_option("--return-ms", options.returnAfter, "time off the bus after a reset, or -1");
    app.add_option("program", options.program, "the program and its arguments")->required();
    CLI11_PARSE(app, argc, argv);
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "usb-bus: " << error.what() << std::endl;
        return kFailure;
    }
}
