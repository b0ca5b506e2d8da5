#include "reporting/SnapshotServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "protocol/src/InfoPackage.h"
#include "reporting/ServerPauses.h"
#include "utils/AccessController.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxReceivedBytes = 64 * 1024;  // that one tool may send in its life
constexpr int kEventsInARow = 64;                // before the next package

// Returns what the kernel grants: usually twice as much, for its own records, but the system may
// have a limit.
size_t setSendBuffer(int fd, int size) {
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    socklen_t length = sizeof(size);
    (void)::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length);
    return static_cast<size_t>(size);
}

int millisecUntil(std::chrono::steady_clock::time_point deadline) {
    return static_cast<int>(std::min<int64_t>(timeUntil(deadline).count(), INT32_MAX));
}

}  // namespace

// The listener is not polled before start(): tools may connect, and wait in its queue.
SnapshotServer::SnapshotServer(const std::string& path, Collect collect, StepTrace trace,
                               Limits limits)
    : m_collect(std::move(collect)),
      m_trace(std::move(trace)),
      m_limits(limits),
      m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_poller(std::make_shared<IPC::Poller>()),
      m_listener(std::make_shared<IPC::ConnectionUDS>(m_poller.get())) {
    if (!m_wakeFd) KELM_THROW("eventfd failed");
    m_listener->create(path, AccessController::instance().getAccessAttribute());
    m_listener->listen();
    m_listener->blockPoller();
    m_thread = std::thread([this] { listenThreadRoutine(); });
}

SnapshotServer::~SnapshotServer() {
    requestStop();
    if (m_thread.joinable()) m_thread.join();
}

void SnapshotServer::start() { m_listener->unblockPoller(); }

void SnapshotServer::requestStop() {
    m_stop = true;
    (void)::eventfd_write(m_wakeFd.get(), 1);  // cannot fail: the count never fills up
}

// A thread that has not ended is kept, perhaps still in a collection: a later stop() joins it.
bool SnapshotServer::stop(milliseconds time) {
    requestStop();
    if (!m_thread.joinable()) return true;
    if (!m_ended.waitFor(time.count())) return false;
    m_thread.join();
    return true;
}

void SnapshotServer::listenThreadRoutine() {
    m_onThread.assertHeld();
    ThreadUtils::setName("InfoServer");
    ThreadUtils::saveThreadInfo("InfoServer");
    InfoPackage package;  // here, so that no pass allocates its quarter of a megabyte
    while (!m_stop) {
        try {
            if (!waitForPass()) continue;
            LOG_STEP("collect infoPackage");
            m_collect(package);
            writePackage(package);
        } catch (const std::exception& error) {
            LOG_ERROR("Error: the snapshot server goes on after: %s", error.what());
            sleepUntil(Clock::now() + kErrorPause);
        }
    }
    closeAll();
    // Last: stop() only joins after this.
    m_ended.post();
}

bool SnapshotServer::waitForPass() {
    waitForEvent();
    bool due = false;
    // What has come meanwhile shares a package, so that many that connect or leave at once cost
    // one.
    for (int i = 0; i < kEventsInARow && !m_stop; ++i) {
        IPC::PollEvent event;
        if (!m_poller->wait(&event, 0)) break;
        if (handleEpollEvent(event)) due = true;
    }
    resumeAccepting();
    if (m_tools.empty() || m_stop) return false;
    const auto now = Clock::now();
    // By a deadline: events without a package must not put the next one off.
    due = due || now >= m_nextPackage;
    if (due) m_nextPackage = now + m_limits.period;
    return due;
}

// Without a tool nothing falls due, and the period only bounds the wait. A poll that fails or is
// interrupted is as good as one without an event.
void SnapshotServer::waitForEvent() {
    auto deadline = m_tools.empty() ? Clock::now() + m_limits.period : m_nextPackage;
    if (m_acceptAgain) deadline = std::min(deadline, *m_acceptAgain);
    std::array<pollfd, 2> entries = {{{m_poller->nativeHandle(), POLLIN, 0},  // an event to fetch
                                      {m_wakeFd.get(), POLLIN, 0}}};
    (void)::poll(entries.data(), entries.size(), millisecUntil(deadline));
}

// By the descriptor of the stop, so that the end need not wait for the pause.
void SnapshotServer::sleepUntil(Clock::time_point deadline) {
    pollfd entry = {m_wakeFd.get(), POLLIN, 0};
    (void)::poll(&entry, 1, millisecUntil(deadline));
}

bool SnapshotServer::handleEpollEvent(const IPC::PollEvent& event) {
    if (event.connection == m_listener) return event.isReadable() && acceptTool();
    const int number = event.connection->getSimulateFD();
    const auto tool = m_tools.find(number);
    // Closed by an earlier event of this round.
    if (tool == m_tools.end()) return false;
    if (event.isHungUp()) {
        closeTool(number);
        return true;
    }
    if (!dropInput(tool->second)) closeTool(number);
    return false;
}

bool SnapshotServer::acceptTool() {
    try {
        auto connection = makePlace() ? IPC::ConnectionUDS::tryMake(m_poller.get()) : nullptr;
        if (!connection) {
            refuseTool();
            return false;
        }
        connection->accept(m_listener.get());
        const int number = connection->getSimulateFD();
        Tool& tool = m_tools[number];
        tool.room = setSendBuffer(connection->nativeHandle(), m_limits.sendBuffer);
        tool.connection = std::move(connection);
        LOG_STEP("accept new connection: %d", number);
        return true;
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a snapshot tool cannot be accepted: %s", error.what());
        // The tool stays in the listener's queue, which would be readable at once again.
        pauseAccepting();
        return false;
    }
}

// A tool that is not behind counts as the latest: if the search finds one of these, none is behind.
bool SnapshotServer::makePlace() {
    if (m_tools.size() < m_limits.tools) return true;
    const auto waitsLonger = [](const auto& left, const auto& right) {
        return left.second.behindSince.value_or(Clock::time_point::max()) <
               right.second.behindSince.value_or(Clock::time_point::max());
    };
    const auto longest = std::min_element(m_tools.begin(), m_tools.end(), waitsLonger);
    if (!longest->second.behindSince) return false;
    closeTool(longest->first);
    return true;
}

void SnapshotServer::refuseTool() {
    LOG_WARN("Warn: %lu snapshot tools are connected, another one is turned away", m_tools.size());
    m_listener->refuse();
    pauseAccepting();
}

void SnapshotServer::pauseAccepting() {
    m_listener->blockPoller();
    m_acceptAgain = Clock::now() + kAcceptPause;
}

void SnapshotServer::resumeAccepting() {
    if (!m_acceptAgain || Clock::now() < *m_acceptAgain) return;
    m_listener->unblockPoller();
    m_acceptAgain.reset();  // last: when that fails, the next turn tries again
}

// Bounded over the tool's life: a talker would otherwise keep the thread busy at no cost to itself.
bool SnapshotServer::dropInput(Tool& tool) {
    while (tool.received <= kMaxReceivedBytes) {
        const ssize_t count = m_input.fill(tool.connection->nativeHandle(), MSG_DONTWAIT);
        if (count > 0) {
            tool.received += m_input.take(nullptr, static_cast<size_t>(count));
        } else if (count == 0 || errno == EAGAIN) {
            return true;  // the end of the stream comes as a hang-up
        } else if (errno != EINTR) {
            return false;
        }
    }
    return false;
}

void SnapshotServer::closeTool(int number) {
    IPC::ConnectionBase::close(number);  // first: our share keeps the number from other connections
    m_tools.erase(number);
    LOG_STEP("socket %d closed", number);
}

void SnapshotServer::closeAll() {
    while (!m_tools.empty()) closeTool(m_tools.begin()->first);
    m_listener->close();
}

// All tools at once, round by round, and not one after the other: one that reads slowly must not
// use up the time of the rest.
void SnapshotServer::writePackage(const InfoPackage& package) {
    const std::vector<int> takers = findTakers();
    std::vector<int> unfinished = takers;
    const auto deadline = Clock::now() + m_limits.writing;
    do {
        std::erase_if(unfinished, [&](int number) {
            m_onThread.assertHeld();
            return writeSome(m_tools.at(number), package);
        });
    } while (!unfinished.empty() && waitWritable(unfinished, deadline));
    // With a part of a package missing, a tool could make no sense of the next one.
    for (const int number : takers) {
        if (m_tools.at(number).sent == sizeof(package)) continue;
        LOG_STEP("write infoPackage to %d failed", number);
        closeTool(number);
    }
}

std::vector<int> SnapshotServer::findTakers() {
    std::vector<int> takers;
    for (auto& [number, tool] : m_tools) {
        if (isBehind(tool)) {
            // The first moment counts: the tool that is behind for longest gives up its place.
            if (!tool.behindSince) tool.behindSince = Clock::now();
            continue;
        }
        LOG_STEP("write infoPackage to %d", number);
        tool.behindSince.reset();
        tool.sent = 0;
        takers.push_back(number);
    }
    return takers;
}

// In the kernel's own count, which includes its records, as `room` does.
bool SnapshotServer::isBehind(Tool& tool) {
    int unread = 0;
    if (::ioctl(tool.connection->nativeHandle(), TIOCOUTQ, &unread) != 0 || unread <= 0) {
        return false;  // if it takes no whole package now, it never does
    }
    return static_cast<size_t>(unread) + sizeof(InfoPackage) > tool.room;
}

// True after an error too: the caller finds a package that is not whole, and closes.
bool SnapshotServer::writeSome(Tool& tool, const InfoPackage& package) {
    const char* bytes = reinterpret_cast<const char*>(&package);
    while (tool.sent < sizeof(package)) {
        const ssize_t count = ::send(tool.connection->nativeHandle(), bytes + tool.sent,
                                     sizeof(package) - tool.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            tool.sent += static_cast<size_t>(count);
        } else if (errno != EINTR) {
            return errno != EAGAIN;
        }
    }
    return true;
}

bool SnapshotServer::waitWritable(const std::vector<int>& numbers, Clock::time_point deadline) {
    std::vector<pollfd> entries = {{m_wakeFd.get(), POLLIN, 0}};
    for (const int number : numbers) {
        entries.push_back({m_tools.at(number).connection->nativeHandle(), POLLOUT, 0});
    }
    (void)::poll(entries.data(), entries.size(), millisecUntil(deadline));
    return !m_stop && Clock::now() < deadline;
}

}  // namespace kelm
