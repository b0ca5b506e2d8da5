#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "client/Client.h"
#include "tools/kelmctl/Arrivals.h"
#include "tools/kelmctl/BackOff.h"
#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/Interruption.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// A graph of a client, with the buffers for its tasks and where they are counted.
struct BenchSource {
    client::Graph graph;
    std::unique_ptr<client::TensorPool> tensors;
    BenchCell* cell = nullptr;
    int depth = 0;   // of its window, which it may share with others
    int weight = 0;  // above 0
    int credit = 0;  // of the weighted turns
};

// The requests of one client. In a closed loop each window is kept full: what ends makes place for
// the next one. In an open loop requests are due at times of their own, wait for a place if need
// be, and their latency counts from the due time: a service that stalls is not spared the requests
// that it would have got meanwhile.
//
// A request that is refused keeps its place and is sent again after a back-off.
//
// Threads: run() on one; results arrive on the client library's threads, which send what is due.
// Owns: the sources. Borrowed: all else, until the service has been destroyed.
// Locks: m_mutex, which also guards the cells against a second writer; not held while sending.
class BenchLoad {
 public:
    // `index` is the client's.
    BenchLoad(const BenchSetup& setup, size_t index, client::Client& service,
              std::vector<BenchSource> sources, Interruption& interruption, BenchLane& lane);

    // One round, until nothing is in flight any more, or will not end after a signal. `stop` ends
    // it early. Returns what would make all further requests fail, if anything.
    client::Error run(const BenchRound& round, const std::atomic<bool>& stop) EXCLUDES(m_mutex);

 private:
    using Clock = std::chrono::steady_clock;

    // So many requests at a time, for one graph or for several in turn.
    struct Window {
        std::vector<BenchSource*> sources;
        int free = 0;
        std::optional<Arrivals> arrivals;  // of an open loop
    };
    struct Request {
        BenchSource* source = nullptr;
        Window* window = nullptr;
        Clock::time_point due;
        Clock::time_point firstSent;
        bool measured = false;
        int refusals = 0;
    };

    void begin(const BenchRound& round, const std::atomic<bool>& stop) EXCLUDES(m_mutex);
    Arrivals makeArrivals(size_t window) const REQUIRES(m_mutex);
    // Sends all that may be sent now.
    void pump() EXCLUDES(m_mutex);
    void send(const Request& request) EXCLUDES(m_mutex);
    // What is to be sent now, if anything. It has its place, and counts as begun.
    std::optional<Request> takeUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    Request makeRequestUnsafe(Window& window, Clock::time_point now) REQUIRES(m_mutex);
    static BenchSource& nextSource(const Window& window);

    // An answer has come, or no answer will.
    void settle(Request request, const client::InferResult& result) EXCLUDES(m_mutex);
    void countUnsafe(const Request& request, const client::InferResult& result,
                     Clock::time_point now) REQUIRES(m_mutex);
    // What was due and has not been taken by the service when the round was over.
    void giveUpUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    void giveUpUnsafe(const Request& request, Clock::time_point now) REQUIRES(m_mutex);
    void endUnsafe(const Request& request) REQUIRES(m_mutex);

    // Whether further requests come.
    bool isOpenUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    bool hasBegunAllUnsafe() const REQUIRES(m_mutex);
    // Whether nothing is sent any more, not even what was due before the end.
    bool isCutUnsafe(Clock::time_point now) const REQUIRES(m_mutex);
    bool isDueUnsafe(const Window& window, Clock::time_point now) const REQUIRES(m_mutex);
    // When there is something to send or to look at.
    Clock::time_point nextEventUnsafe(Clock::time_point now) const REQUIRES(m_mutex);

    const BenchSetup& m_setup;
    const size_t m_index;
    client::Client& m_service;
    Interruption& m_interruption;
    BenchLane& m_lane;
    const Clock::time_point m_begin = Clock::now();
    int m_weight = 0;  // of all sources

    Mutex m_mutex;
    CondVar m_wake;
    std::vector<BenchSource> m_sources GUARDED_BY(m_mutex);
    std::vector<Window> m_windows GUARDED_BY(m_mutex);
    std::multimap<Clock::time_point, Request> m_refused GUARDED_BY(m_mutex);  // by the next try
    BackOff m_backOff GUARDED_BY(m_mutex);
    BenchRound m_round GUARDED_BY(m_mutex);
    const std::atomic<bool>* m_stop GUARDED_BY(m_mutex) = nullptr;
    uint64_t m_begun GUARDED_BY(m_mutex) = 0;     // measured ones of this round
    uint64_t m_inFlight GUARDED_BY(m_mutex) = 0;  // also those that wait in m_refused
    bool m_isGivenUp GUARDED_BY(m_mutex) = false;
    Clock::time_point m_sleepEnd GUARDED_BY(m_mutex);  // until when run() sleeps, if it does
    client::Error m_fatal GUARDED_BY(m_mutex);         // what ended the run, if anything
};

}  // namespace kelm::ctl
