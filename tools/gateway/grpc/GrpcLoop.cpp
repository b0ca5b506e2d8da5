#include "tools/gateway/grpc/GrpcLoop.h"

#include <chrono>

namespace kelm::gateway {

namespace {

// Long ago: the present is a millisecond from now, as gRPC rounds.
constexpr std::chrono::system_clock::time_point kNow{};

}  // namespace

void GrpcLoop::start(std::function<void()> first) {
    m_thread = std::thread([this, first = std::move(first)] {
        first();
        awaitLook();
        run();
    });
}

void GrpcLoop::join() {
    if (!m_thread.joinable()) return;
    m_end.Set(m_queue.get(), kNow, &m_end);
    m_thread.join();
}

void GrpcLoop::add(std::unique_ptr<GrpcCall> call) {
    GrpcCall& added = *call;
    m_calls.emplace(&added, Kept{std::move(call)});
    added.ask();
}

void GrpcLoop::arrived(GrpcCall& call) {
    m_calls.at(&call).hasArrived = true;
    ++m_arrived;
}

void GrpcLoop::drop(GrpcCall& call) {
    const auto kept = m_calls.find(&call);
    if (kept->second.hasArrived) --m_arrived;
    m_calls.erase(kept);
}

// Calls use the queue until they are dropped, so it is shut after the last.
void GrpcLoop::run() {
    void* what = nullptr;
    bool ok = false;
    for (bool isShut = false; m_queue->Next(&what, &ok);) {
        happen(what, ok);
        if (!m_isEnding || isShut || m_arrived > 0) continue;
        isShut = true;
        m_look.Cancel();
        m_queue->Shutdown();
    }
}

void GrpcLoop::happen(void* what, bool ok) {
    if (what == &m_look) return lookAtAll();
    if (what == &m_end) {
        m_isEnding = true;
        return;
    }
    if (what == this) return runPosted();
    const auto* const tag = static_cast<GrpcCall::Tag*>(what);
    (tag->call->*tag->happened)(ok);
}

// What comes while the thread is busy gathers, and wakes it once.
void GrpcLoop::post(GrpcCall::Tag& tag) {
    MutexLock lock(m_mutex);
    m_posted.push_back(&tag);
    if (m_posted.size() == 1) m_wake.Set(m_queue.get(), kNow, this);
}

void GrpcLoop::runPosted() {
    std::vector<GrpcCall::Tag*> posted;
    {
        MutexLock lock(m_mutex);
        posted.swap(m_posted);
    }
    for (const GrpcCall::Tag* each : posted) (each->call->*each->happened)(true);
}

void GrpcLoop::lookAtAll() {
    const auto now = GrpcCall::Clock::now();
    for (const auto& [call, kept] : m_calls) {
        if (kept.hasArrived) call->look(now);
    }
    if (!m_isEnding || m_arrived > 0) awaitLook();
}

void GrpcLoop::awaitLook() {
    constexpr std::chrono::milliseconds kInterval(250);
    m_look.Set(m_queue.get(), std::chrono::system_clock::now() + kInterval, &m_look);
}

}  // namespace kelm::gateway
