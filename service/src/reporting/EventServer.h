#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "reporting/EventJournal.h"
#include "utils/NonCopyable.h"
#include "utils/PeerDescriptor.h"
#include "utils/ReceiveBuffer.h"
#include "utils/Semaphore.h"
#include "utils/ThreadRole.h"
#include "utils/UniqueFd.h"

struct pollfd;

namespace IPC {
class ConnectionUDS;
class Poller;
}  // namespace IPC

namespace kelm {

// Streams the journal to the readers on the events socket, as lines of JSON: a greeting, then each
// event as it comes; docs/events.md has the protocol. Without a reader it sleeps, and the journal
// tells it nothing.
//
// A reader that does not read loses its events from some point on: once it has read what was kept
// for it, it is told which ones, and disconnected; at once if it does not read in time.
//
// Threads: one of its own, "EventServer"; the public operations on one other thread at a time.
// Owns: the socket and the readers' connections. Borrows the journal for its life.
class EventServer : public NonCopyable {
 public:
    struct Limits {
        size_t readers = 32;                       // at a time; others are turned away
        size_t backlog = 256 * 1024;               // bytes of live events kept for one reader
        std::chrono::milliseconds patience{5000};  // with one whose backlog is full
        int sendBuffer = 0;                        // of the kernel; 0: as it comes
    };

    // Opens the socket; raises if it cannot be made. Readers wait outside until start().
    EventServer(const std::string& path, EventJournal& journal, Limits limits);
    ~EventServer();  // waits for the thread

    void start();
    // Ends the thread and disconnects all readers. False if it has not ended in time.
    bool stop(std::chrono::milliseconds time);

 private:
    using Clock = std::chrono::steady_clock;

    struct Reader {
        PeerSocket fd;
        std::string input;   // of the request, until it is whole
        std::string output;  // to be written
        uint64_t first = 0;  // the event that its stream begins with
        size_t room = 0;     // for the output
        bool inputEnded = false;
        bool hasAsked = false;
        bool isClosing = false;  // with the last byte of the output
        bool isGone = false;
        uint64_t lostFrom = 0;  // the first event that found no room; 0: none
        std::optional<Clock::time_point> deadline;
    };

    void requestStop();
    void routine();
    void wait() REQUIRES(m_onThread);
    int timeToWait() const REQUIRES(m_onThread);
    void handle(Reader& reader, short events) REQUIRES(m_onThread);

    void acceptReader() REQUIRES(m_onThread);
    void greet(Reader& reader) REQUIRES(m_onThread);
    void receive(Reader& reader) REQUIRES(m_onThread);
    void answer(Reader& reader, std::string_view request) REQUIRES(m_onThread);
    // What has come into the journal goes to all readers.
    void takeEvents() REQUIRES(m_onThread);
    void give(Reader& reader, const std::string& line, uint64_t sequence) REQUIRES(m_onThread);
    void write(Reader& reader) REQUIRES(m_onThread);
    void writeAll() REQUIRES(m_onThread);
    void dropGone() REQUIRES(m_onThread);

    EventJournal& m_journal;
    const Limits m_limits;
    std::atomic<bool> m_stop{false};  // atomic: set by the stopping thread, read by the server's
    UniqueFd m_wakeFd;
    std::shared_ptr<IPC::Poller> m_poller;  // never asked: a connection needs one
    std::shared_ptr<IPC::ConnectionUDS> m_listener;

    ThreadRole m_onThread;
    std::list<Reader> m_readers GUARDED_BY(m_onThread);
    IPC::ReceiveBuffer m_input GUARDED_BY(m_onThread);    // empty but for one reading
    EventJournal::Extract m_last GUARDED_BY(m_onThread);  // its events have been given out
    std::optional<Clock::time_point> m_acceptAgain GUARDED_BY(m_onThread);

    Semaphore m_ended{0, 0};
    std::thread m_thread;
};

}  // namespace kelm
