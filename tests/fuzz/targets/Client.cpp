// The wire on the library's side: a program with tasks in flight, and a service that answers it
// with what the input says. Whatever comes, every task that was taken ends once.

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "kelm/kelm.h"
#include "tests/fakes/TempDir.h"
#include "tests/fuzz/targets/FuzzInput.h"
#include "tests/wire/WireClient.h"

namespace kelm {
namespace {

constexpr int kTasks = 4;
constexpr WireClient::Millis kPause{5};  // without a request: the program waits for an answer
constexpr int kDeadline = 5000;          // the service hangs up long before

void require(bool holds) {
    if (!holds) __builtin_trap();
}

// The program: all that can be asked of the service, in a row. It goes on after errors.
class Program {
 public:
    void run(const std::string& socket) {
        KELM_INIT(kelm_client_options, options);
        options.socket_path = socket.c_str();
        options.name = "fuzz";
        options.deadline_ms = kDeadline;
        kelm_client* client = nullptr;
        if (kelm_connect(&options, &client) != 0) return;
        useGraph(client);
        kelm_status* status = nullptr;
        if (kelm_status_query(client, kDeadline, &status) == 0) kelm_status_free(status);
        (void)kelm_device_reset(client, 0, kDeadline);
        require(kelm_close(client) == 0);
        require(m_ended == m_taken);
    }

 private:
    void useGraph(kelm_client* client) {
        KELM_INIT(kelm_graph_options, options);
        options.deadline_ms = kDeadline;
        kelm_graph* graph = nullptr;
        if (kelm_graph_from_memory(client, "graph", 5, &options, &graph) != 0) return;
        KELM_INIT(kelm_graph_info, info);
        (void)kelm_graph_get_info(graph, &info);
        kelm_pool* pool = nullptr;
        (void)kelm_pool_create(64, 64, 64, kTasks, &pool);
        uint64_t ticket = 0;
        for (int i = 0; i < kTasks; ++i) startTask(graph, pool, &ticket);
        (void)kelm_cancel(graph, ticket, nullptr);
        KELM_INIT(kelm_task, task);
        task.deadline_ms = kDeadline;
        task.input = task.output = {KELM_TENSOR_DESCRIPTOR, STDERR_FILENO, nullptr, 64};
        KELM_INIT(kelm_result, result);
        (void)kelm_infer(graph, &task, &result);
        (void)kelm_graph_free(graph);
        kelm_pool_free(pool);
    }

    void startTask(kelm_graph* graph, kelm_pool* pool, uint64_t* ticket) {
        kelm_slot* slot = nullptr;
        if (kelm_pool_acquire(pool, &slot) != 0) return;
        KELM_INIT(kelm_task, task);
        task.deadline_ms = kDeadline;
        task.slot = slot;
        task.cookie = m_taken;
        task.user = this;
        task.done = [](const kelm_result* result, void* user) {
            auto& program = *static_cast<Program*>(user);
            require(result->cookie < kTasks && !program.m_done[result->cookie].exchange(true));
            ++program.m_ended;
        };
        if (kelm_infer_async(graph, &task, ticket) == 0) ++m_taken;
        kelm_slot_release(slot);
    }

    uint64_t m_taken = 0;
    std::atomic<uint64_t> m_ended{0};
    std::atomic<bool> m_done[kTasks] = {};
};

// The service, as the input wants it.
class Service {
 public:
    Service(FuzzInput& input, WireClient peer) : m_input(input), m_peer(std::move(peer)) {}

    // Until the input has come to its end, or the program asks nothing more.
    void run() {
        while (!m_input.isEmpty() && m_peer.connected()) {
            if (m_peer.canReceive(kPause)) {
                const auto request = m_peer.receive();
                if (!request) return;
                remember(*request);
                // What follows a record: its descriptors, of which only the bytes are read, and the
                // graph.
                const bool isGraph = request->type() == KELM_MESSAGE_CREATE_GRAPH_REQ;
                std::string behind(4 * request->as<KelmMsgBase>().fdNum + (isGraph ? 5 : 0), 0);
                if (!m_peer.readBytes(behind.data(), behind.size())) return;
            } else if (m_peer.isDisconnected() || ++m_silent > 3) {
                return;
            }
            play();
        }
    }

 private:
    // What is known of the requests, so that answers can fit.
    void remember(const WireMessage& request) {
        m_type = request.type();
        m_sequence = request.as<KelmMsgReq>().reqSeqNo;
        if (m_type == KELM_MESSAGE_INFER_TASK_REQ) {
            m_cookie = request.as<KelmMsgReqInferTask>().taskCookie0;
            m_tasks.insert(m_sequence);
        }
    }

    // A few messages, mostly those that are due.
    void play() {
        for (size_t left = 1 + m_input.below(3); left > 0 && m_peer.connected(); --left) {
            switch (m_input.below(8)) {
                case 0:
                    return;  // no answer
                case 1:
                    (void)m_peer.sendBytes(m_input.text(m_input.take()));
                    break;
                case 2:
                    sendPatched(makeAnswer(m_input.below(kMessageTypes + 1), m_input.take()));
                    break;
                case 3:
                    sendPatched(makeAnswer(m_type + 1, m_sequence));
                    break;
                case 4:
                    for (const uint64_t task : std::exchange(m_tasks, {})) {
                        (void)m_peer.sendBytes(makeAnswer(KELM_MESSAGE_TASK_DONE_EVT, task));
                    }
                    break;
                default:
                    (void)m_peer.sendBytes(makeAnswer(m_type + 1, m_sequence));
            }
        }
    }

    // A good answer to the request of that number.
    std::string makeAnswer(uint32_t type, uint64_t sequence) const {
        std::string record = makeRecord(type);
        const auto put = [&record](size_t offset, uint64_t number) {
            if (offset + sizeof(number) <= record.size()) {
                std::memcpy(record.data() + offset, &number, sizeof(number));
            }
        };
        if (type == KELM_MESSAGE_TASK_DONE_EVT) {
            put(offsetof(KelmMsgEvtTaskDone, reqSeqNo), sequence);
            put(offsetof(KelmMsgEvtTaskDone, taskId), sequence);
            put(offsetof(KelmMsgEvtTaskDone, taskCookie0), m_cookie);
            return record;
        }
        put(offsetof(KelmMsgRsp, reqSeqNo), sequence);
        put(offsetof(KelmMsgRsp, rspSeqNo), sequence);
        put(offsetof(KelmMsgRsp, clientId), 1);
        // The graph, the task or the device; of a graph its sizes behind it.
        for (size_t i = 0; i < 6; ++i) put(sizeof(KelmMsgRsp) + 8 * i, i == 0 ? sequence : 64);
        return record;
    }

    void sendPatched(std::string record) {
        m_input.patch(record);
        (void)m_peer.sendBytes(record);
    }

    FuzzInput& m_input;
    WireClient m_peer;
    uint32_t m_type = KELM_MESSAGE_REGISTER_REQ;
    uint64_t m_sequence = 0;
    uint64_t m_cookie = 0;
    std::set<uint64_t> m_tasks;
    int m_silent = 0;
};

// The socket at which the program finds its service.
struct Door {
    Door() : path(directory.path() + "/socket"), listener(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        require(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) ==
                0);
        require(::listen(listener.get(), 8) == 0);
    }

    const TempDir directory;
    const std::string path;
    const UniqueFd listener;
};

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static const Door door;
    FuzzInput input(data, size);
    auto program = std::async(std::launch::async, [] { Program().run(door.path); });
    Service(input, WireClient::acceptFrom(door.listener.get())).run();
    program.get();
    return 0;
}
