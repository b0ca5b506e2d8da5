#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <list>
#include <string>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "managers/MessageDispatcher.h"
#include "managers/wiring.h"
#include "platform/linux/SystemdNotifier.h"
#include "shell/CommandLineParser.h"
#include "shell/ExitLimit.h"
#include "shell/ExitSignal.h"
#include "shell/ServiceDaemonHelper.h"
#include "tools/autoboot/AutobootStarter.h"
#include "utils/CommonHelper.h"
#include "utils/DaemonHelper.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/MemoryReserve.h"
#include "utils/StandardOutput.h"
#include "utils/ThreadUtils.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

constexpr int kFailure = -1;
constexpr int kFailureStatus = 255;  // what the shell sees of it
// From the wish to end to the end: clients, graphs and workers have shorter limits of their own.
constexpr std::chrono::milliseconds kTimeToEnd{8000};
constexpr long kLookForSignalMillisec = 100;

constexpr int kMappedBlockBytes = 128 << 10;

CommandLineParser cmdlineParser;

void setupOutput() {
    StandardOutput::flushLines();
    Log::instance().setPriorities(StandardOutput::isJournal());
}

// The daemon is this program again without the option; the parent ends at once.
void startDaemon(int argc, char** argv) {
    std::list<std::string> args(argv, argv + argc);
    args.remove("-d");
    args.remove("--daemon");
    DaemonHelper::createDaemon(args);
}

// A service that was started without them would write its log into the first file or socket that
// gets the number, and 0 counts as no descriptor in many places.
void occupyStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = ::open("/dev/null", O_RDWR);
    if (fd > STDERR_FILENO) ::close(fd);
}

void setupEnvironment() {
    occupyStandardDescriptors();
    // Threads share two heaps: one for each would keep the service's memory several times over.
    ::mallopt(M_ARENA_MAX, 2);
    // The memory of an unloaded graph is given back at once, whatever was freed before. Left alone,
    // the allocator keeps blocks as large as the largest that it has seen.
    ::mallopt(M_MMAP_THRESHOLD, kMappedBlockBytes);
    MemoryReserve::install();
    if (!CommonHelper::liftMaxOpenFileLimit()) {
        std::cerr
            << "## Warning: failed to lift max fd open count limitation for kelmdaemon.\n"
               "##          This might lead to error (TOO MANY OPEN FILES) when there are too "
               "many\n"
               "##          kelm async clients sending task in a very fast speed.\n";
    }
}

std::string getKelmInstallDir() {
    std::string directory = CommonHelper::getKelmInstallDir();
    if (directory.empty()) {
        std::cerr << "## Error: Please specify KELM_INSTALL_DIR to KELM install path.\n"
                     "   example:\n"
                     "       $ export KELM_INSTALL_DIR=/path/to/kelm/install/dir\n\n";
    }
    return directory;
}

// Later files override earlier ones. A file that cannot be loaded stops nothing.
void loadServiceConfigFiles(const std::string& kelmInstallDir) {
    ServiceConfigParser& parser = ServiceConfigParser::instance();
    for (const auto& [path, reportMissing] :
         ServiceConfigParser::listFiles(kelmInstallDir, cmdlineParser.getServiceConfigFiles())) {
        parser.appendConfigFile(path, reportMissing);
    }
}

// After the configuration, which names the group of the lock files, and before the log: a second
// service must not touch the files of the first.
bool takeAliveLock() {
    if (ServiceDaemonHelper::instance().isLocked()) return true;
    std::cout << "## Kelm service is already running.\n";
    return false;
}

// The user's file takes the place of the installed one; they are not merged.
std::string getLog4cppInitFile(const std::string& kelmInstallDir) {
    if (const char* home = FileHelper::getHome()) {
        std::string own = std::string(home) + "/.kelmservicelog4cpp.config";
        if (FileHelper::exist(own)) return own;
    }
    std::string common = kelmInstallDir + "/config/kelmservicelog4cpp.config";
    return FileHelper::exist(common) ? common : "";
}

void setupLog(const std::string& kelmInstallDir) {
    const ServiceConfigParser& parser = ServiceConfigParser::instance();
    Log::instance().setLogLevel(parser.isDebugServiceEnabled() ? getLogLevel(&parser) : 0);
    Log::instance().setLog4cppInitFile(getLog4cppInitFile(kelmInstallDir));
}

// Simulated devices need no boot tool, and no lock files of one.
bool hasBootTool() { return !KelmDeviceBase::isFakeDeviceModeEnabled(nullptr); }

bool bootDevices() {
    if (!hasBootTool()) return true;
    if (AutobootStarter::instance().launch(cmdlineParser.getBootConfigFiles())) return true;
    LOG_ERROR("Error: Start Service failed due to autoboot failure");
    return false;
}

// Flushed by hand: the process may leave without its static objects being destroyed.
void sayGoodbye() {
    LOG_INFO("SERVICE EXITS QUIETLY, GOODBYE!");
    std::cout.flush();
}

// Bounded like the usual end: static objects that are destroyed now may wait for a device.
int giveUp() {
    ExitLimit::start(kTimeToEnd, kFailureStatus);
    ServiceDaemonHelper::instance().daemonStop();
    sayGoodbye();
    return kFailure;
}

// Returns when the signal has come, or when the configured time has passed without a client.
void waitUntilUnused(ExitSignal& signal) {
    MessageDispatcher& dispatcher = MessageDispatcher::instance();
    ServiceDaemonHelper& helper = ServiceDaemonHelper::instance();
    const int waitSeconds = ServiceConfigParser::instance().getWaitSecondsBeforeExit();
    while (!signal.isSet()) {
        dispatcher.waitForIdleState();
        if (waitSeconds < 0 || signal.isSet()) continue;
        LOG_INFO("Wait %d seconds before main program exits", waitSeconds);
        if (waitSeconds != 0) signal.sleepFor(std::chrono::seconds(waitSeconds));
        // From here a client that finds the lock held waits for this process to end, so a client
        // that is not seen now does not come any more.
        while (!helper.daemonReadyToStop(kLookForSignalMillisec) && !signal.isSet()) {
        }
        if (!dispatcher.isWorking()) break;
        helper.daemonCancelStop();
    }
    if (signal.isSet()) LOG_INFO("RECEIVE USER1 SIGNAL, EXIT SERVICE");
}

// The limit first: everything below may meet a device that does not answer.
void stopService(SystemdNotifier& notifier) {
    ExitLimit::start(kTimeToEnd, 0);
    notifier.stopping();
    if (hasBootTool()) AutobootStarter::instance().stop();
    ServiceDaemonHelper::instance().daemonStop();
    const bool ended = MessageDispatcher::instance().stopService();
    sayGoodbye();
    if (ended) return;
    disableTracer();      // saves its rows, which otherwise the end of the process does
    ExitLimit::leave(0);  // static objects are still in use
}

// The devices are booted before they are looked for, and the ports connected before any thread is
// started that uses them. The ready lock comes last: a client that sees it is served.
int runService(SystemdNotifier& notifier) {
    if (!bootDevices()) return kFailure;
    std::signal(SIGPIPE, SIG_IGN);  // before the first socket: a dead client is an error code
    connectPorts();
    if (!MessageDispatcher::instance().isReady()) return giveUp();
    ExitSignal signal([] {
        ExitLimit::start(kTimeToEnd, 0);
        MessageDispatcher::instance().getNotifiedOfZeroClient();
    });
    ThreadUtils::setName("kelmdaemon");  // the process is known by it; a worker's making changed it
    LOG_INFO("SERVICE IS READY ...");
    std::cout.flush();
    ServiceDaemonHelper::instance().daemonReadyToServe([&notifier] { notifier.ready(); });
    waitUntilUnused(signal);
    stopService(notifier);
    return 0;
}

}  // namespace

}  // namespace kelm

int main(int argc, char** argv) {
    using namespace kelm;
    Log::instance();  // built first, so that it is destroyed last
    setupOutput();
    if (!cmdlineParser.parse(argc, argv)) return 0;
    if (cmdlineParser.isRunAsDaemon()) {
        startDaemon(argc, argv);
        return 0;
    }
    setupEnvironment();
    SystemdNotifier notifier;  // before other threads: it changes the environment
    const std::string kelmInstallDir = getKelmInstallDir();
    if (kelmInstallDir.empty()) return kFailure;
    std::cout << "## KELM_INSTALL_DIR: " << kelmInstallDir << "\n";
    loadServiceConfigFiles(kelmInstallDir);
    if (!takeAliveLock()) return kFailure;
    setupLog(kelmInstallDir);
    if (ServiceConfigParser::instance().isTracerEnabled()) enableTracer();
    return runService(notifier);
}
