#include "reporting/EventServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "reporting/ServerPauses.h"
#include "utils/AccessController.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

using std::chrono::milliseconds;

constexpr int kSchema = 1;
constexpr size_t kMostRequest = 64;  // bytes of the one line that a reader may send
constexpr std::string_view kRequest = "last ";
constexpr milliseconds kLongSleep{60 * 1000};

std::string gapLine(uint64_t from, uint64_t to) {
    return "{\"kind\":\"gap\",\"from\":" + std::to_string(from) + ",\"to\":" + std::to_string(to) +
           "}\n";
}

// How many events a request asks for; nothing for what is no request.
std::optional<size_t> parseRequest(std::string_view request) {
    if (request.ends_with('\r')) request.remove_suffix(1);
    if (!request.starts_with(kRequest)) return std::nullopt;
    request.remove_prefix(kRequest.size());
    size_t count = 0;
    const char* const end = request.data() + request.size();
    const auto result = std::from_chars(request.data(), end, count);
    if (result.ec != std::errc() || result.ptr != end || count == 0) return std::nullopt;
    return std::min(count, EventJournal::kMostRead);
}

}  // namespace

EventServer::EventServer(const std::string& path, EventJournal& journal, Limits limits)
    : m_journal(journal),
      m_limits(limits),
      m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_poller(std::make_shared<IPC::Poller>()),
      m_listener(std::make_shared<IPC::ConnectionUDS>(m_poller.get())) {
    if (!m_wakeFd) KELM_THROW("eventfd failed");
    m_listener->create(path, AccessController::instance().getAccessAttribute());
    m_listener->listen();
}

EventServer::~EventServer() {
    requestStop();
    if (m_thread.joinable()) m_thread.join();
    m_journal.setWatcher(-1);
    m_listener->close();
}

void EventServer::start() {
    if (!m_thread.joinable()) m_thread = std::thread([this] { routine(); });
}

void EventServer::requestStop() {
    m_stop = true;
    (void)::eventfd_write(m_wakeFd.get(), 1);
}

bool EventServer::stop(milliseconds time) {
    requestStop();
    if (!m_thread.joinable()) return true;
    if (!m_ended.waitFor(time.count())) return false;
    m_thread.join();
    m_listener->close();
    return true;
}

void EventServer::routine() {
    m_onThread.assertHeld();
    ThreadUtils::setName("EventServer");
    ThreadUtils::saveThreadInfo("EventServer");
    while (!m_stop) {
        try {
            wait();
            if (m_stop) break;
            takeEvents();
            writeAll();
            dropGone();
        } catch (const std::exception& error) {
            LOG_ERROR("Error: the event server goes on after: %s", error.what());
            std::this_thread::sleep_for(kErrorPause);
        }
    }
    m_journal.setWatcher(-1);
    m_readers.clear();
    m_ended.post();  // last: stop() only joins after this
}

int EventServer::timeToWait() const {
    auto until = Clock::now() + kLongSleep;
    if (m_acceptAgain) until = std::min(until, *m_acceptAgain);
    for (const Reader& reader : m_readers) {
        if (reader.deadline) until = std::min(until, *reader.deadline);
    }
    return static_cast<int>(timeUntil(until).count());
}

// Readers are written to only where there is something to write, so a reader that does not read
// wakes nobody.
void EventServer::wait() {
    if (m_acceptAgain && Clock::now() >= *m_acceptAgain) m_acceptAgain.reset();
    const int listener = m_acceptAgain ? -1 : m_listener->nativeHandle();
    std::vector<pollfd> entries = {{m_wakeFd.get(), POLLIN, 0}, {listener, POLLIN, 0}};
    for (const Reader& reader : m_readers) {
        const int wanted = (reader.inputEnded ? 0 : POLLIN) | (reader.output.empty() ? 0 : POLLOUT);
        entries.push_back({reader.fd.get(), static_cast<short>(wanted), 0});
    }
    if (::poll(entries.data(), entries.size(), timeToWait()) <= 0) return;
    eventfd_t ignored = 0;
    if (entries[0].revents != 0 && !m_stop) (void)::eventfd_read(m_wakeFd.get(), &ignored);
    auto entry = entries.begin() + 2;
    for (Reader& reader : m_readers) handle(reader, (entry++)->revents);
    if (entries[1].revents != 0) acceptReader();
}

void EventServer::handle(Reader& reader, short events) {
    if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0) reader.isGone = true;
    if ((events & POLLIN) != 0 && !reader.isGone) receive(reader);
}

void EventServer::acceptReader() {
    PeerSocket fd(
        ::accept4(m_listener->nativeHandle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const bool isFull = m_readers.size() >= m_limits.readers;
    if (!fd || isFull) {
        if (isFull) {
            LOG_WARN("Warn: %lu readers of events are connected, another one is turned away",
                     m_readers.size());
        }
        m_acceptAgain = Clock::now() + kAcceptPause;
        return;
    }
    if (m_limits.sendBuffer > 0) {
        (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &m_limits.sendBuffer,
                           sizeof(m_limits.sendBuffer));
    }
    if (m_readers.empty()) {
        m_journal.setWatcher(m_wakeFd.get());
        m_last = m_journal.read(EventJournal::kNoEvents);
    }
    takeEvents();  // the new one's stream begins behind what the others have got
    Reader& reader = m_readers.emplace_back();
    reader.fd = std::move(fd);
    greet(reader);
}

void EventServer::greet(Reader& reader) {
    reader.first = m_last.next;
    reader.room = m_limits.backlog;
    std::string moves;
    for (size_t reason = 0; reason < m_last.moves.size(); ++reason) {
        moves += std::string(reason == 0 ? "\"" : ",\"") +
                 nameOf(static_cast<PlacementReason>(reason)) +
                 "\":" + std::to_string(m_last.moves[reason]);
    }
    reader.output = "{\"kind\":\"greeting\",\"schema\":" + std::to_string(kSchema) +
                    ",\"next\":" + std::to_string(m_last.next) + ",\"moves\":{" + moves + "}}\n";
}

// A reader may end its side of the connection behind its request, and reads on.
void EventServer::receive(Reader& reader) {
    const ssize_t count = m_input.fill(reader.fd.get(), MSG_DONTWAIT);
    if (count < 0) {
        reader.isGone = errno != EAGAIN && errno != EINTR;
        return;
    }
    if (count == 0) {
        reader.inputEnded = true;
        return;
    }
    const size_t before = reader.input.size();
    reader.input.resize(before + static_cast<size_t>(count));
    (void)m_input.take(reader.input.data() + before, static_cast<size_t>(count));
    const size_t end = reader.input.find('\n');
    const bool isWhole = end + 1 == reader.input.size();
    if (reader.hasAsked || reader.input.size() > kMostRequest ||
        (end != std::string::npos && !isWhole)) {
        reader.isGone = true;
    } else if (isWhole) {
        reader.hasAsked = true;
        answer(reader, std::string_view(reader.input).substr(0, end));
        reader.input.clear();
    }
}

// Only what came before the reader: everything after that is in its stream already.
void EventServer::answer(Reader& reader, std::string_view request) {
    const std::optional<size_t> count = parseRequest(request);
    if (!count) {
        reader.output += "{\"kind\":\"error\",\"text\":\"no request; send one line: last 1000\"}\n";
        reader.isClosing = true;
        return;
    }
    std::vector<ServiceEvent> events = m_journal.read(0).events;
    std::erase_if(events,
                  [&](const ServiceEvent& event) { return event.sequence >= reader.first; });
    const size_t skipped = events.size() - std::min(events.size(), *count);
    std::string lines;
    for (size_t i = skipped; i < events.size(); ++i) lines += toJsonLine(events[i]);
    lines += "{\"kind\":\"live\",\"next\":" + std::to_string(reader.first) + "}\n";
    reader.room += lines.size();
    reader.output += lines;
}

void EventServer::takeEvents() {
    if (m_readers.empty()) return;
    const uint64_t from = m_last.next;
    m_last = m_journal.read(from);
    uint64_t expected = from;
    for (const ServiceEvent& event : std::exchange(m_last.events, {})) {
        // The journal has dropped some before this thread came to them.
        const std::string gap =
            event.sequence > expected ? gapLine(expected, event.sequence - 1) : std::string();
        const std::string line = gap + toJsonLine(event);
        for (Reader& reader : m_readers) give(reader, line, expected);
        expected = event.sequence + 1;
    }
}

void EventServer::give(Reader& reader, const std::string& line, uint64_t sequence) {
    if (reader.lostFrom != 0 || reader.isClosing) return;
    if (reader.output.size() + line.size() <= reader.room) {
        reader.output += line;
        return;
    }
    reader.lostFrom = sequence;
    reader.deadline = Clock::now() + m_limits.patience;
}

void EventServer::writeAll() {
    for (Reader& reader : m_readers) {
        write(reader);
        if (reader.output.empty() && reader.lostFrom != 0 && !reader.isClosing) {
            reader.output = gapLine(reader.lostFrom, m_last.next - 1);
            reader.isClosing = true;
            write(reader);
        }
        const bool isDone = reader.isClosing && reader.output.empty();
        const bool isLate = reader.deadline && Clock::now() >= *reader.deadline;
        if (isDone || isLate) reader.isGone = true;
    }
}

void EventServer::write(Reader& reader) {
    size_t sent = 0;
    while (sent < reader.output.size() && !reader.isGone) {
        const ssize_t count = ::send(reader.fd.get(), reader.output.data() + sent,
                                     reader.output.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR) {
            reader.isGone = true;
        }
    }
    reader.output.erase(0, sent);
}

void EventServer::dropGone() {
    const size_t dropped = m_readers.remove_if([](const Reader& reader) { return reader.isGone; });
    if (dropped > 0 && m_readers.empty()) m_journal.setWatcher(-1);
}

}  // namespace kelm
