#include "tools/kelmctl/TopFeed.h"

#include <sys/eventfd.h>

#include <stdexcept>
#include <utility>

#include "tools/kelmctl/EventHistory.h"
#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {
constexpr client::Deadline kDeadline{2000};
}  // namespace

// Threads, since a query waits for its answer while the streams wait for what comes next.
TopFeed::TopFeed(std::chrono::milliseconds interval)
    : m_interval(interval), m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_wakeFd) throw std::runtime_error("cannot make an event descriptor");
    m_statusThread = std::thread([this] { statusRoutine(); });
    m_snapshotThread = std::thread([this] { snapshotRoutine(); });
    m_eventThread = std::thread([this] { eventRoutine(); });
}

// The readers are interrupted; a query ends by its deadline.
TopFeed::~TopFeed() {
    {
        MutexLock lock(m_mutex);
        m_stop = true;
        if (m_reader) m_reader->interrupt();
        if (m_events) m_events->interrupt();
    }
    m_stopped.notifyAll();
    m_statusThread.join();
    m_snapshotThread.join();
    m_eventThread.join();
}

TopNews TopFeed::take() {
    // Quiet before the news are taken: what comes in between announces itself once more.
    eventfd_t ignored = 0;
    (void)::eventfd_read(m_wakeFd.get(), &ignored);
    MutexLock lock(m_mutex);
    TopNews news = m_news;
    m_news.status.reset();
    m_news.snapshot.reset();
    return news;
}

void TopFeed::wakeReader() const { (void)::eventfd_write(m_wakeFd.get(), 1); }

bool TopFeed::waitInterval() {
    const auto end = std::chrono::steady_clock::now() + m_interval;
    MutexLock lock(m_mutex);
    while (!m_stop && m_stopped.waitUntil(m_mutex, end)) {
    }
    return !m_stop;
}

// Connects anew for as long as the feed lives: a service that starts again is found.
void TopFeed::statusRoutine() {
    ThreadUtils::setName("TopStatus");
    do {
        const std::string why = followStatus();
        {
            MutexLock lock(m_mutex);
            m_news.statusWhy = why;
            m_news.status.reset();
        }
        wakeReader();
    } while (waitInterval());
}

// The client unregisters as it is destroyed: to the service a mere hang-up is an error.
std::string TopFeed::followStatus() {
    const auto connected = client::Client::connect({}, kDeadline);
    if (!connected) return connected.error().text();
    client::Client& service = *connected.value();
    if (const client::Error error = service.registerClient("kelmctl", kDeadline)) {
        return error.text();
    }
    do {
        const auto status = service.queryStatus(client::StatusParts::all(), kDeadline);
        if (!status) return status.error().text();
        {
            MutexLock lock(m_mutex);
            m_news.status = status.value();
            m_news.statusWhy.clear();
        }
        wakeReader();
    } while (waitInterval());
    return {};
}

void TopFeed::snapshotRoutine() {
    ThreadUtils::setName("TopSnapshot");
    do {
        const std::string why = followSnapshots();
        {
            MutexLock lock(m_mutex);
            m_news.snapshotWhy = why;
            m_news.snapshot.reset();
        }
        wakeReader();
    } while (waitInterval());
}

bool TopFeed::publish(std::shared_ptr<client::SnapshotReader> reader) {
    MutexLock lock(m_mutex);
    m_reader = std::move(reader);
    return !m_stop;
}

std::string TopFeed::followSnapshots() {
    auto connected = client::SnapshotReader::connect({}, kDeadline);
    if (!connected) return connected.error().text();
    const std::shared_ptr<client::SnapshotReader> reader = std::move(connected.value());
    // Where the destructor has come first it interrupts no reader that it does not know.
    if (!publish(reader)) return {};
    while (true) {
        const auto snapshot = reader->read();
        if (!snapshot) {
            (void)publish(std::shared_ptr<client::SnapshotReader>());
            return snapshot.error().text();
        }
        {
            MutexLock lock(m_mutex);
            m_news.snapshot = snapshot.value();
            m_news.snapshotWhy.clear();
        }
        wakeReader();
    }
}

bool TopFeed::publish(std::shared_ptr<client::EventReader> reader) {
    MutexLock lock(m_mutex);
    m_events = std::move(reader);
    return !m_stop;
}

void TopFeed::tell(const TopMoves& moves) {
    {
        MutexLock lock(m_mutex);
        m_news.moves = moves;
    }
    wakeReader();
}

// Why there are none the line about the service tells; one that has no such socket has no moves.
void TopFeed::eventRoutine() {
    ThreadUtils::setName("TopEvents");
    do {
        try {
            followEvents();
        } catch (const std::exception&) {  // the stream is none that this program knows
        }
        (void)publish(std::shared_ptr<client::EventReader>());
    } while (waitInterval());
}

// Told at once where nothing else comes, but not each of many that come together.
void TopFeed::followEvents() {
    auto connected = client::EventReader::connect({}, kDeadline);
    if (!connected) return;
    const std::shared_ptr<client::EventReader> reader = std::move(connected.value());
    if (!publish(reader)) return;
    const auto history = readHistory(*reader, kAllEvents, kDeadline);
    if (!history) return;
    TopMoves moves;
    moves.begin(history.value());
    while (true) {
        if (!reader->hasLine()) tell(moves);
        const auto line = reader->read(kAnyTime);
        if (!line) return;
        moves.add(parseEvent(line.value()));
    }
}

}  // namespace kelm::ctl
