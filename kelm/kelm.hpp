#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/kelm.h"

// The interface of kelm.h for C++20: handles that free themselves, errors as exceptions. Header-only;
// link libkelm. What kelm.h says of threads, times, units and memory holds here too.
namespace kelm {

// A call that failed. what() tells the cause and what to do.
class Error : public std::runtime_error {
 public:
    Error(int code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    // Below 0 the service's, above 0 one of enum kelm_error.
    int code() const { return m_code; }
    const char* name() const { return kelm_error_name(m_code); }

 private:
    int m_code;
};

namespace detail {

inline void check(int code) {
    if (code != KELM_SUCCESS) throw Error(code, kelm_last_error());
}

template <class T>
T sized() {
    T value = {};
    value.size = sizeof(T);
    return value;
}

template <class T, auto end>
struct Ends {
    void operator()(T* handle) const { (void)end(handle); }
};
template <class T, auto end>
using Handle = std::unique_ptr<T, Ends<T, end>>;

inline int32_t millis(std::chrono::milliseconds time) { return static_cast<int32_t>(time.count()); }
inline const char* orNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

}  // namespace detail

// A slot of a pool, the owner's until it is destroyed; also while its task runs, which keeps the
// memory.
class Slot {
 public:
    explicit Slot(kelm_slot* handle) : m_handle(handle) {}
    std::span<std::byte> input() const { return view(kelm_slot_input); }
    std::span<std::byte> output() const { return view(kelm_slot_output); }
    std::span<std::byte> aux() const { return view(kelm_slot_aux); }
    // A buffer as an array of T, as many as fit.
    template <class T>
    static std::span<T> as(std::span<std::byte> bytes) {
        return {reinterpret_cast<T*>(bytes.data()), bytes.size() / sizeof(T)};
    }
    kelm_slot* get() const { return m_handle.get(); }

 private:
    std::span<std::byte> view(void* (*buffer)(kelm_slot*, size_t*)) const {
        size_t bytes = 0;
        void* data = buffer(get(), &bytes);
        return {static_cast<std::byte*>(data), bytes};
    }
    detail::Handle<kelm_slot, kelm_slot_release> m_handle;
};

class Pool {
 public:
    Pool(size_t inputBytes, size_t outputBytes, size_t auxBytes = 0, size_t maxSlots = 0) {
        kelm_pool* pool = nullptr;
        detail::check(kelm_pool_create(inputBytes, outputBytes, auxBytes, maxSlots, &pool));
        m_handle.reset(pool);
    }
    Slot acquire() {
        kelm_slot* slot = nullptr;
        detail::check(kelm_pool_acquire(m_handle.get(), &slot));
        return Slot(slot);
    }

 private:
    detail::Handle<kelm_pool, kelm_pool_free> m_handle;
};

// What a task wants beside its buffers.
struct TaskOptions {
    std::chrono::milliseconds deadline{0};  // 0: the default
    uint32_t priority = 0;                  // 0 to 15, the highest first
    uint32_t auxFlags = 0;                  // enum kelm_aux_flags
    uint64_t cookie = 0;
};

// How a task ended: as kelm_result, with a text that lives as long.
struct Result : kelm_result {
    Result() : kelm_result(detail::sized<kelm_result>()) {}
    explicit Result(const kelm_result& from) : kelm_result(from), message(from.text) {}
    bool ok() const { return error == KELM_SUCCESS; }
    // Throws if it failed.
    void require() const {
        if (!ok()) throw Error(error, message);
    }
    std::string message;  // in place of `text`
};

struct GraphOptions {
    std::string name = {};
    std::string tag = {};
    std::string streamId = {};
    int32_t subclass = 0;
    int32_t expectDevices = 1;
    uint32_t window = 0;      // 0: three tasks for each device
    uint32_t maxWaiting = 0;  // 0: 65,536
    std::chrono::milliseconds deadline{0};
};

// A loaded graph. The client must outlive its use, but not its destruction.
class Graph {
 public:
    explicit Graph(kelm_graph* handle) : m_handle(handle), m_info(readInfo()) {}

    // As it was loaded; the id changes with a reconnect.
    const kelm_graph_info& info() const { return m_info; }
    // The sizes of its buffers; without auxiliary blocks unless flags name some.
    Pool makePool(uint32_t auxFlags = 0, size_t maxSlots = 0) const {
        const size_t aux = (auxFlags & KELM_AUX_TIME_TAKEN ? m_info.time_taken_bytes : 0) +
                           (auxFlags & KELM_AUX_THERMAL ? m_info.thermal_bytes : 0) +
                           (auxFlags & KELM_AUX_DEBUG ? m_info.debug_bytes : 0);
        return Pool(m_info.input_bytes, m_info.output_bytes, aux, maxSlots);
    }

    // Waits for the end; throws if it is an error.
    Result infer(const Slot& slot, const TaskOptions& options = {}) {
        kelm_task task = makeTask(slot, options);
        return infer(task);
    }
    Result infer(const kelm_task& task) {
        Result result;
        detail::check(kelm_infer(get(), &task, &result));
        return result;
    }

    // Calls done(const kelm_result&) once, on a thread of the library or in Client::dispatch; it must
    // not throw. Returns the ticket; throws if the task was not taken, and does not call then.
    template <class Done>
    uint64_t start(const Slot& slot, const TaskOptions& options, Done done) {
        return start(makeTask(slot, options), std::move(done));
    }
    template <class Done>
    uint64_t start(kelm_task task, Done done) {
        auto held = std::make_unique<Done>(std::move(done));
        task.user = held.get();
        task.done = [](const kelm_result* result, void* user) {
            const std::unique_ptr<Done> callback(static_cast<Done*>(user));
            std::invoke(*callback, *result);
        };
        uint64_t ticket = 0;
        detail::check(kelm_infer_async(get(), &task, &ticket));
        (void)held.release();  // the callback's
        return ticket;
    }
    // The same as a future. Not to be waited for on the thread that dispatches.
    std::future<Result> start(const Slot& slot, const TaskOptions& options = {}) {
        std::promise<Result> promise;
        std::future<Result> future = promise.get_future();
        start(slot, options, [promise = std::move(promise)](const kelm_result& result) mutable {
            promise.set_value(Result(result));
        });
        return future;
    }

    // True if the task was taken back and ends with KELM_CANCELED.
    bool cancel(uint64_t ticket) {
        int canceled = 0;
        detail::check(kelm_cancel(get(), ticket, &canceled));
        return canceled != 0;
    }

    // The blocks of an auxiliary buffer that was asked for with these flags.
    kelm_aux decode(std::span<const std::byte> aux, uint32_t auxFlags) const {
        auto decoded = detail::sized<kelm_aux>();
        detail::check(kelm_aux_decode(&m_info, auxFlags, aux.data(), aux.size(), &decoded));
        return decoded;
    }

    static kelm_task makeTask(const Slot& slot, const TaskOptions& options) {
        auto task = detail::sized<kelm_task>();
        task.slot = slot.get();
        task.deadline_ms = detail::millis(options.deadline);
        task.priority = options.priority;
        task.aux_flags = options.auxFlags;
        task.cookie = options.cookie;
        return task;
    }
    kelm_graph* get() const { return m_handle.get(); }

 private:
    kelm_graph_info readInfo() const {
        auto info = detail::sized<kelm_graph_info>();
        detail::check(kelm_graph_get_info(get(), &info));
        return info;
    }

    detail::Handle<kelm_graph, kelm_graph_free> m_handle;
    kelm_graph_info m_info;
};

// What the service was doing; texts of the rows live as long as this.
class Status {
 public:
    explicit Status(kelm_status* handle)
        : m_handle(handle), m_info(detail::sized<kelm_status_info>()) {
        detail::check(kelm_status_get_info(handle, &m_info));
    }
    const kelm_status_info& info() const { return m_info; }
    std::vector<kelm_device_row> devices() const {
        return rows<kelm_device_row>(m_info.device_rows, kelm_status_get_device);
    }
    std::vector<kelm_graph_row> graphs() const {
        return rows<kelm_graph_row>(m_info.graph_rows, kelm_status_get_graph);
    }
    std::vector<kelm_client_row> clients() const {
        return rows<kelm_client_row>(m_info.client_rows, kelm_status_get_client);
    }

 private:
    template <class Row>
    std::vector<Row> rows(uint32_t count,
                          int (*get)(const kelm_status*, uint32_t, Row*)) const {
        std::vector<Row> rows(count, detail::sized<Row>());
        for (uint32_t i = 0; i < count; ++i) detail::check(get(m_handle.get(), i, &rows[i]));
        return rows;
    }
    detail::Handle<kelm_status, kelm_status_free> m_handle;
    kelm_status_info m_info;
};

struct ClientOptions {
    std::string name = {};        // empty: the program's
    std::string socketPath = {};  // empty: the usual one
    bool reconnect = false;       // KELM_CLIENT_RECONNECT
    bool dispatch = false;        // KELM_CLIENT_DISPATCH
    std::chrono::milliseconds deadline{0};
    std::function<void(const std::string& text)> onWarning = {};
    std::function<void(bool up)> onConnection = {};
};

// A registered connection. Its graphs must not be used after it.
class Client {
 public:
    explicit Client(ClientOptions options = {})
        : m_options(std::make_unique<ClientOptions>(std::move(options))) {
        auto wanted = detail::sized<kelm_client_options>();
        wanted.flags = (m_options->reconnect ? uint32_t{KELM_CLIENT_RECONNECT} : 0) |
                       (m_options->dispatch ? uint32_t{KELM_CLIENT_DISPATCH} : 0);
        wanted.socket_path = detail::orNull(m_options->socketPath);
        wanted.name = detail::orNull(m_options->name);
        wanted.deadline_ms = detail::millis(m_options->deadline);
        wanted.user = m_options.get();
        if (m_options->onWarning) {
            wanted.on_warning = [](const char* text, void* user) {
                static_cast<ClientOptions*>(user)->onWarning(text);
            };
        }
        if (m_options->onConnection) {
            wanted.on_connection = [](int up, void* user) {
                static_cast<ClientOptions*>(user)->onConnection(up != 0);
            };
        }
        kelm_client* client = nullptr;
        detail::check(kelm_connect(&wanted, &client));
        m_handle.reset(client);
    }

    Graph load(std::span<const std::byte> bytes, const GraphOptions& options = {}) {
        return make(options, [&](const kelm_graph_options* wanted, kelm_graph** graph) {
            return kelm_graph_from_memory(get(), bytes.data(), bytes.size(), wanted, graph);
        });
    }
    // This process reads the file.
    Graph loadFile(const std::string& path, const GraphOptions& options = {}) {
        return make(options, [&](const kelm_graph_options* wanted, kelm_graph** graph) {
            return kelm_graph_from_file(get(), path.c_str(), wanted, graph);
        });
    }
    // The service reads the file.
    Graph loadServiceFile(const std::string& path, const GraphOptions& options = {}) {
        return make(options, [&](const kelm_graph_options* wanted, kelm_graph** graph) {
            return kelm_graph_from_service_file(get(), path.c_str(), wanted, graph);
        });
    }

    bool isConnected() const { return kelm_is_connected(get()) != 0; }
    uint64_t id() const { return kelm_client_id(get()); }
    // Dispatch mode: readable while callbacks are due, which dispatch() runs. How many ran.
    int fd() const { return kelm_fd(get()); }
    int dispatch(std::chrono::milliseconds timeout = std::chrono::milliseconds(0)) {
        const int count = kelm_dispatch(get(), detail::millis(timeout));
        if (count < 0) throw Error(KELM_SYSTEM_ERROR, kelm_last_error());
        return count;
    }
    Status status(std::chrono::milliseconds deadline = std::chrono::milliseconds(0)) {
        kelm_status* status = nullptr;
        detail::check(kelm_status_query(get(), detail::millis(deadline), &status));
        return Status(status);
    }
    // KELM_ALL_DEVICES: all.
    void resetDevice(uint32_t device) { detail::check(kelm_device_reset(get(), device, 0)); }

    kelm_client* get() const { return m_handle.get(); }

 private:
    template <class Load>
    static Graph make(const GraphOptions& options, const Load& load) {
        auto wanted = detail::sized<kelm_graph_options>();
        wanted.deadline_ms = detail::millis(options.deadline);
        wanted.name = detail::orNull(options.name);
        wanted.tag = detail::orNull(options.tag);
        wanted.stream_id = detail::orNull(options.streamId);
        wanted.subclass = options.subclass;
        wanted.expect_devices = options.expectDevices;
        wanted.window = options.window;
        wanted.max_waiting = options.maxWaiting;
        kelm_graph* graph = nullptr;
        detail::check(load(&wanted, &graph));
        return Graph(graph);
    }

    const std::unique_ptr<ClientOptions> m_options;  // behind the handle's callbacks
    detail::Handle<kelm_client, kelm_close> m_handle;
};

// The stream of snapshots; see kelm_snapshots_next.
class Snapshots {
 public:
    explicit Snapshots(const std::string& socketPath = {},
                       std::chrono::milliseconds deadline = std::chrono::milliseconds(0)) {
        kelm_snapshots* snapshots = nullptr;
        detail::check(kelm_snapshots_open(detail::orNull(socketPath), detail::millis(deadline),
                                          &snapshots));
        m_handle.reset(snapshots);
    }
    // Waits for the next one, whose rows the functions of kelm.h then give.
    kelm_snapshot_info next(std::chrono::milliseconds deadline = std::chrono::milliseconds(0)) {
        auto info = detail::sized<kelm_snapshot_info>();
        detail::check(kelm_snapshots_next(get(), detail::millis(deadline), &info));
        return info;
    }
    void interrupt() { kelm_snapshots_interrupt(get()); }
    int fd() const { return kelm_snapshots_fd(get()); }
    kelm_snapshots* get() const { return m_handle.get(); }

 private:
    detail::Handle<kelm_snapshots, kelm_snapshots_close> m_handle;
};

}  // namespace kelm
