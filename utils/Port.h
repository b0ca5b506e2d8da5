#pragma once

#include <functional>
#include <utility>

#include "utils/Mutex.h"

namespace kelm {

// A call up the list of folders: the lower folder owns the interface `Listener`, the class that
// implements it connects a provider. Without a listener, calls are dropped, which is what a late
// notice at the end of the process meets.
//
// Threads: any. disconnect() waits for the calls in progress, so a listener's destructor starts
// with it.
template <class Listener>
class Port {
 public:
    // The provider is asked at each call, so that a singleton behind it is built when first needed.
    using Provider = std::function<Listener&()>;

    static void connect(Provider provider) {
        WriterLock lock(state().mutex);
        state().provider = std::move(provider);
    }

    static void disconnect() {
        WriterLock lock(state().mutex);
        state().provider = nullptr;
    }

    // Calls `Method` on the listener, or does nothing without one.
    template <auto Method, class... Args>
    static void notify(Args&&... args) {
        ReaderLock lock(state().mutex);
        if (state().provider) (state().provider().*Method)(std::forward<Args>(args)...);
    }

    // The same for a call that answers; `fallback` is the answer without a listener.
    template <auto Method, class Result, class... Args>
    static Result ask(Result fallback, Args&&... args) {
        ReaderLock lock(state().mutex);
        if (!state().provider) return fallback;
        return (state().provider().*Method)(std::forward<Args>(args)...);
    }

 private:
    struct State {
        SharedMutex mutex;
        Provider provider GUARDED_BY(mutex);
    };

    // Never destroyed: threads that outlive the static objects still find "no listener" here.
    static State& state() {
        static State& obj = *new State;
        return obj;
    }
};

// Connects a listener for a scope; for tests.
template <class Listener>
class ScopedPort {
 public:
    explicit ScopedPort(Listener& listener) {
        Port<Listener>::connect([&listener]() -> Listener& { return listener; });
    }
    ~ScopedPort() { Port<Listener>::disconnect(); }
    ScopedPort(const ScopedPort&) = delete;
    ScopedPort& operator=(const ScopedPort&) = delete;
};

}  // namespace kelm
