#include "tools/kelmctl/BenchLoad.h"

#include <algorithm>
#include <random>
#include <utility>

#include "protocol/src/KelmError.h"

namespace kelm::ctl {

namespace {

// For one try, and for all tries together of a request that is refused again and again.
constexpr client::Deadline kInferDeadline(30000);
// How long after the end what was due before it is still sent.
constexpr std::chrono::seconds kTimeToCatchUp(1);
constexpr std::chrono::milliseconds kLate(1);
// The longest sleep: the parent's sign to stop wakes no condition of this process.
constexpr std::chrono::milliseconds kLook(100);

bool isRefusal(const client::Error& error) {
    return error.kind() == client::ErrorKind::kService && error.code() == KELM_ERROR_TOO_MANY_TASK;
}

uint64_t toNanos(std::chrono::steady_clock::duration time) {
    return static_cast<uint64_t>(
        std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::nanoseconds>(time).count()));
}

// One writer at a time.
void increase(std::atomic<uint64_t>& count) {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

// Windows point to sources, neither of which move from here on.
BenchLoad::BenchLoad(const BenchSetup& setup, size_t index, client::Client& service,
                     std::vector<BenchSource> sources, Interruption& interruption, BenchLane& lane)
    : m_setup(setup),
      m_index(index),
      m_service(service),
      m_interruption(interruption),
      m_lane(lane),
      m_sources(std::move(sources)),
      m_backOff(std::random_device()()) {
    const bool isShared = setup.depths.size() == 1;
    m_windows.resize(isShared ? 1 : m_sources.size());
    for (size_t i = 0; i < m_sources.size(); ++i) {
        Window& window = m_windows[isShared ? 0 : i];
        window.sources.push_back(&m_sources[i]);
        window.free = m_sources[i].depth;
        m_weight += m_sources[i].weight;
    }
}

client::Error BenchLoad::run(const BenchRound& round, const std::atomic<bool>& stop) {
    begin(round, stop);
    (void)m_interruption.sleepUntil(round.start);
    while (true) {
        const Clock::time_point now = Clock::now();
        pump();
        MutexLock lock(m_mutex);
        // By the time before the pump: what was due by then has been sent, or has no place.
        if (m_inFlight == 0 && !isOpenUnsafe(now)) break;
        if (m_inFlight > 0 && m_interruption.isOverdue()) break;
        m_sleepEnd = nextEventUnsafe(Clock::now());
        (void)m_wake.waitUntil(m_mutex, m_sleepEnd);
        m_sleepEnd = {};
    }
    m_lane.runNanos = toNanos(Clock::now() - round.measure);
    MutexLock lock(m_mutex);
    return m_fatal;
}

void BenchLoad::begin(const BenchRound& round, const std::atomic<bool>& stop) {
    MutexLock lock(m_mutex);
    m_round = round;
    m_stop = &stop;
    m_begun = 0;
    m_isGivenUp = false;
    for (const BenchSource& source : m_sources) source.cell->clear();
    for (size_t i = 0; i < m_windows.size(); ++i) {
        m_windows[i].arrivals.reset();
        if (round.rate > 0.0) m_windows[i].arrivals = makeArrivals(i);
    }
}

// The clients share the rate evenly, and their windows by weight. Phases keep the requests of all
// evenly spaced, seeds keep them independent.
Arrivals BenchLoad::makeArrivals(size_t window) const {
    int weight = 0;
    for (const BenchSource* source : m_windows[window].sources) weight += source->weight;
    const double rate = m_round.rate / static_cast<double>(m_setup.clients) * weight / m_weight;
    const size_t number = window * m_setup.clients + m_index;
    if (m_setup.poisson) {
        constexpr uint64_t kSeedsPerRound = uint64_t{1} << 32;
        return Arrivals::poisson(m_round.start, rate, m_lane.rounds * kSeedsPerRound + number);
    }
    const double all = static_cast<double>(m_windows.size() * m_setup.clients);
    return Arrivals::evenly(m_round.start, rate, static_cast<double>(number) / all);
}

// Without the mutex while sending: a callback may come at once, even on this thread.
void BenchLoad::pump() {
    while (true) {
        std::optional<Request> request;
        {
            MutexLock lock(m_mutex);
            const Clock::time_point now = Clock::now();
            request = takeUnsafe(now);
            if (!request) {
                const bool hasEnded = m_inFlight == 0 && !isOpenUnsafe(now);
                if (hasEnded || nextEventUnsafe(now) < m_sleepEnd) m_wake.notifyAll();
                return;
            }
        }
        send(*request);
    }
}

// The stop, a signal and an error that all others would share are the end, if they come first.
bool BenchLoad::isOpenUnsafe(Clock::time_point now) {
    if (now < m_round.end && (*m_stop || m_fatal || m_interruption.signal() != 0)) {
        m_round.end = now;
    }
    return now < m_round.end && !hasBegunAllUnsafe();
}

bool BenchLoad::hasBegunAllUnsafe() const { return m_setup.count > 0 && m_begun >= m_setup.count; }

bool BenchLoad::isCutUnsafe(Clock::time_point now) const {
    return m_fatal || m_interruption.signal() != 0 || now >= m_round.end + kTimeToCatchUp;
}

BenchLoad::Clock::time_point BenchLoad::nextEventUnsafe(Clock::time_point now) const {
    Clock::time_point next = now + kLook;
    if (m_isGivenUp) return next;
    next = std::min(next, now < m_round.end ? m_round.end : m_round.end + kTimeToCatchUp);
    if (!m_refused.empty()) next = std::min(next, m_refused.begin()->first);
    if (hasBegunAllUnsafe()) return next;
    for (const Window& window : m_windows) {
        if (window.free == 0 || !window.arrivals) continue;
        const Clock::time_point due = window.arrivals->due();
        if (due < m_round.end) next = std::min(next, due);
    }
    return next;
}

std::optional<BenchLoad::Request> BenchLoad::takeUnsafe(Clock::time_point now) {
    const bool isOpen = isOpenUnsafe(now);
    if (isCutUnsafe(now)) {
        giveUpUnsafe(now);
        return std::nullopt;
    }
    if (!m_refused.empty() && m_refused.begin()->first <= now) {
        return m_refused.extract(m_refused.begin()).mapped();
    }
    for (Window& window : m_windows) {
        if (window.free == 0) continue;
        // A closed loop ends at the end, an open one with what was due before it.
        if (!(window.arrivals ? isDueUnsafe(window, now) : isOpen)) continue;
        const Request request = makeRequestUnsafe(window, now);
        if (request.measured && now - request.due > kLate) increase(request.source->cell->late);
        return request;
    }
    return std::nullopt;
}

bool BenchLoad::isDueUnsafe(const Window& window, Clock::time_point now) const {
    const Clock::time_point due = window.arrivals->due();
    return due <= now && due < m_round.end && !hasBegunAllUnsafe();
}

BenchLoad::Request BenchLoad::makeRequestUnsafe(Window& window, Clock::time_point now) {
    Request request{&nextSource(window), &window, now, now};
    if (window.arrivals) {
        request.due = window.arrivals->due();
        window.arrivals->pop();
    }
    request.measured = request.due >= m_round.measure;
    if (request.measured) ++m_begun;
    ++m_inFlight;
    --window.free;
    return request;
}

// Smooth weighted round robin: everyone earns its weight, the richest pays the sum.
BenchSource& BenchLoad::nextSource(const Window& window) {
    int sum = 0;
    BenchSource* richest = nullptr;
    for (BenchSource* source : window.sources) {
        source->credit += source->weight;
        sum += source->weight;
        if (richest == nullptr || source->credit > richest->credit) richest = source;
    }
    richest->credit -= sum;
    return *richest;
}

void BenchLoad::send(const Request& request) {
    auto slot = request.source->tensors->acquire();
    if (!slot) {
        client::InferResult result;
        result.error = slot.error();
        return settle(request, result);
    }
    client::InferRequest infer;
    infer.graphId = request.source->graph.id;
    infer.input = slot.value()->inputTensor();
    infer.output = slot.value()->outputTensor();
    m_service.inferAsync(
        infer,
        [this, request, held = slot.value()](const client::InferResult& result) {
            settle(request, result);
            pump();
        },
        {}, kInferDeadline);
}

void BenchLoad::settle(Request request, const client::InferResult& result) {
    using client::ErrorKind;
    const ErrorKind kind = result.error.kind();
    const Clock::time_point now = Clock::now();
    MutexLock lock(m_mutex);
    if (isRefusal(result.error)) {
        ++request.refusals;
        if (request.measured) increase(request.source->cell->refusals);
        if (isCutUnsafe(now)) return giveUpUnsafe(request, now);
        if (now - request.firstSent < kInferDeadline) {
            m_refused.emplace(now + m_backOff.next(request.refusals), request);
            return;
        }
    }
    // What ends with the connection after a signal is no error of the service.
    if (kind != ErrorKind::kConnectionLost || !m_interruption.isOverdue()) {
        countUnsafe(request, result, now);
    }
    endUnsafe(request);
    // Of no use to try again: without a slot it would fail at once, for ever.
    if (kind == ErrorKind::kConnectionLost || kind == ErrorKind::kSystem ||
        kind == ErrorKind::kBusy) {
        m_fatal = result.error;
    }
}

void BenchLoad::endUnsafe(const Request& request) {
    --m_inFlight;
    ++request.window->free;
}

void BenchLoad::countUnsafe(const Request& request, const client::InferResult& result,
                            Clock::time_point now) {
    if (!result.error && m_lane.firstResultNanos == 0) {
        m_lane.firstResultNanos = toNanos(now - m_begin);
    }
    if (!request.measured) return;
    BenchCell& cell = *request.source->cell;
    increase(cell.requests);
    if (result.acceptLatency.count() > 0) cell.accept.add(toNanos(result.acceptLatency));
    if (result.error) {
        cell.addError(result.error.name().c_str());
    } else {
        // Latencies of good results only: an error is quick and would flatter the numbers.
        cell.result.add(toNanos(now - request.due));
    }
}

void BenchLoad::giveUpUnsafe(Clock::time_point now) {
    if (std::exchange(m_isGivenUp, true)) return;
    for (const auto& [time, request] : std::exchange(m_refused, {})) giveUpUnsafe(request, now);
    for (Window& window : m_windows) {
        while (window.arrivals && isDueUnsafe(window, now)) {
            giveUpUnsafe(makeRequestUnsafe(window, now), now);
        }
    }
}

void BenchLoad::giveUpUnsafe(const Request& request, Clock::time_point now) {
    if (request.measured) {
        BenchCell& cell = *request.source->cell;
        increase(cell.requests);
        cell.result.add(toNanos(now - request.due));
        increase(cell.givenUp);
    }
    endUnsafe(request);
}

}  // namespace kelm::ctl
