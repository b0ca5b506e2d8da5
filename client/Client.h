#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "client/Error.h"
#include "client/Status.h"
#include "client/TensorPool.h"

namespace kelm::client {

using Deadline = std::chrono::milliseconds;
constexpr Deadline kDefaultDeadline{10000};
// Loading a graph onto devices takes its time.
constexpr Deadline kGraphDeadline{60000};

// Which devices a graph asks for. `tag` and `streamId` pick reserved devices; empty means shared.
struct GraphOptions {
    std::string name = "unnamed";
    std::string tag = {};
    std::string streamId = {};
    int32_t subclass = 0;
    int32_t expectDevices = 1;
};

// A graph that the service has loaded, with the sizes in bytes of its buffers.
struct Graph {
    uint64_t id = 0;
    uint64_t inputSize = 0;
    uint64_t outputSize = 0;
    uint64_t debugSize = 0;
    uint64_t timeTakenSize = 0;
    uint64_t thermalSize = 0;
};

struct BufferSizes {
    uint64_t output = 0;
    uint64_t aux = 0;
};

// The stages of a task, as a query tells them.
enum class TaskStage : int32_t { kCreated = 0, kQueued = 1, kLoading = 2, kLoaded = 3, kDone = 4 };

struct InferRequest {
    uint64_t graphId = 0;
    Tensor input = {};
    Tensor output = {};
    Tensor aux = {};        // kind kNone: none wanted
    uint32_t auxFlags = 0;  // 1 time taken, 2 thermal, 4 debug info
    uint64_t cookie0 = 0;   // come back with the result
    uint64_t cookie1 = 0;
};

// How an inference ended. Latencies are 0 where the answer never came.
struct InferResult {
    Error error;
    uint64_t taskId = 0;
    uint64_t cookie0 = 0;
    uint64_t cookie1 = 0;
    std::chrono::nanoseconds acceptLatency{0};
    std::chrono::nanoseconds resultLatency{0};
};

// Called exactly once per inference, on the client's own threads; must not block for long.
using InferCallback = std::function<void(const InferResult&)>;
// Called when the service has taken the task, before the result, with the task's id.
using AcceptCallback = std::function<void(uint64_t taskId)>;
// Called with what goes on in another way than wanted, on the thread of the call.
using WarningCallback = std::function<void(const std::string& text)>;

// Called once when the connection is lost, behind the ends of all calls, on a thread of the client
// that must not destroy it.
using LostCallback = std::function<void()>;

// Called with the number of a graph that the service has loaded when nobody waited for it any more,
// on a thread that reads answers: it must not wait for one.
using LateGraphCallback = std::function<void(uint64_t graphId)>;

class PreparedInfer;

// Of this library, and of the protocol that it speaks.
struct Version {
    const char* library;
    uint16_t protocolMajor;
    uint16_t protocolMinor;
};
Version version();

// A connection to the service, one per process, shared by its threads.
//
// Every call takes a deadline and ends with an error that says what to do. When the connection is
// lost, every pending call ends with kConnectionLost, and so does every later one.
//
// Threads: any. A callback may submit the next inference; it must not wait for one.
class Client {
 public:
    // An empty path means the service's usual socket, or the one under KELM_RUN_DIR.
    static Result<std::unique_ptr<Client>> connect(const std::string& socketPath = {},
                                                   Deadline deadline = kDefaultDeadline);
    ~Client();  // unregisters, for a second at most; ends pending calls, closes the connection
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // A name of up to 31 characters. First call after connect.
    Error registerClient(const std::string& name, Deadline deadline = kDefaultDeadline);
    // Leaves in order; the connection is of no use afterwards.
    Error unregister(Deadline deadline = kDefaultDeadline);

    // The service reads the file itself.
    Result<Graph> createGraphFromFile(const std::string& path, const GraphOptions& options,
                                      Deadline deadline = kGraphDeadline);
    Result<Graph> createGraph(std::span<const std::byte> blob, const GraphOptions& options,
                              Deadline deadline = kGraphDeadline);
    // Also cancels this client's tasks when others keep using the graph.
    Error destroyGraph(uint64_t graphId, Deadline deadline = kDefaultDeadline);
    Result<BufferSizes> queryBufferSize(uint64_t graphId, Deadline deadline = kDefaultDeadline);

    // The buffers must stay as they are until the call has ended. After a timeout the task may
    // still run: a TensorSlot looks after itself, other memory must stay until the connection has
    // ended. kBusy if the request is to write into a slot that another task may write into, and
    // from the callback of one that ended at its deadline if the service reads nothing just then.
    void inferAsync(const InferRequest& request, const InferCallback& done,
                    AcceptCallback accepted = {}, Deadline deadline = kDefaultDeadline);
    std::future<InferResult> inferAsync(const InferRequest& request,
                                        Deadline deadline = kDefaultDeadline);
    InferResult infer(const InferRequest& request, Deadline deadline = kDefaultDeadline);
    // The same; gives up its claim. Who may send the task again keeps a share of its own.
    void inferAsync(PreparedInfer& infer, const InferCallback& done, AcceptCallback accepted,
                    std::chrono::steady_clock::time_point end);
    // The same for a thread that waits for the end next, and may read the answers itself: `done`
    // and `accepted` run on any thread, and have mostly run on return.
    void inferWaited(PreparedInfer& infer, const InferCallback& done, AcceptCallback accepted,
                     std::chrono::steady_clock::time_point end);

    // True if the task was still waiting: its call has then ended with kCanceled. False: it runs
    // on.
    Result<bool> cancel(uint64_t taskId, Deadline deadline = kDefaultDeadline);
    Result<TaskStage> queryTask(uint64_t taskId, Deadline deadline = kDefaultDeadline);
    // The tasks on the graph that have not ended at the service as far as it has told, and with
    // `everyLate` those on other graphs whose calls have ended at their deadlines; 0 for one whose
    // number has not been told.
    std::vector<uint64_t> tasks(uint64_t graphId, bool everyLate) const;
    // Waits until the service has none of these tasks, which destroyGraph() has made it drop, for
    // 10 s at most. Ends the call of each with KELM_ERROR_INVALID_TASK, or gives back the slots
    // that a call has left to it. False if the service does not answer.
    bool endDropped(const std::vector<uint64_t>& taskIds);

    // What the service is doing; see Status.h for what each part fills.
    Result<ServiceStatus> queryStatus(StatusParts parts = StatusParts::all(),
                                      Deadline deadline = kDefaultDeadline);

    // Tasks in flight on the device are tried again elsewhere.
    Error resetDevice(uint32_t deviceId, Deadline deadline = kGraphDeadline);
    Error resetAllDevices(Deadline deadline = kGraphDeadline);

    // Each warning comes once a connection; without a callback it is dropped. To be set before the
    // first inference.
    void onWarning(WarningCallback callback);

    // To be set before the first call; a connection that is lost by then is not told.
    void onLost(LostCallback callback);
    // To be set before the first call. Without a callback this client stays a user of such a graph.
    void onLateGraph(LateGraphCallback callback);
    // Ends the connection: pending calls end, writes that wait do not go on. From any thread.
    void hangUp();

    uint64_t clientId() const;
    // The process that listens on the socket, as the kernel noted it; 0 if it cannot be seen from
    // here, being in another pid namespace.
    pid_t servicePid() const;
    bool isConnected() const;

 private:
    class Impl;
    explicit Client(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kelm::client
