// The wire on the service's side: the whole service in this process, on simulated devices without
// latencies. An input is what three clients do in turn: they register, load graphs, have tasks in
// flight, and send what no client would. Behind it all their connections end, and a polite client
// is served.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>

#include <array>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "tests/fakes/TestPch.h"
// Behind the set of headers that fakes rely on.
#include "tests/fakes/ServiceInProcess.h"
#include "tests/fuzz/targets/FuzzInput.h"
#include "tests/wire/WireClient.h"
#include "utils/Log.h"

namespace kelm {
namespace {

constexpr const char* kConfig = R"({
    "fake_device_settings": { "fake_device_number": 4, "alloc_graph_latency": 0,
                              "load_tensor_latency": 0, "get_result_latency": 0 },
    "service_settings": { "server_max_task_number": 40, "max_graph_number": 20 },
    "scheduler_config": [ { "subclass": 0, "stream_device_number": 1,
                            "graph_tag_map": { "tag": 1 } } ]
})";
constexpr auto kPatience = std::chrono::seconds(30);

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    __builtin_trap();
}

// One client, and what it knows of its graphs and tasks.
class Player {
 public:
    explicit Player(std::string path) : m_path(std::move(path)) { connect(); }

    void play(FuzzInput& input) {
        using Action = void (Player::*)(FuzzInput&);
        constexpr Action kActions[] = {
            &Player::enter,          &Player::load,    &Player::inferSome, &Player::inferSome,
            &Player::inferOn,        &Player::ask,     &Player::ask,       &Player::sendPatched,
            &Player::sendPatched,    &Player::sendRaw, &Player::read,      &Player::readAll,
            &Player::testDescriptor, &Player::hangUp,
        };
        (this->*kActions[input.below(std::size(kActions))])(input);
    }

 private:
    void connect() { m_client.emplace(m_path); }
    void enter(FuzzInput& input) {
        auto request = m_client->make<KelmMsgReqRegister>(KELM_MESSAGE_REGISTER_REQ);
        input.text(4).copy(request.clientName, sizeof(request.clientName));
        request.apiMajorVersion = static_cast<uint16_t>(1 + input.below(2));
        send(std::string(reinterpret_cast<const char*>(&request), sizeof(request)));
        if (input.below(8) > 0) read(input);
    }
    void load(FuzzInput& input) {
        constexpr const char* kTags[] = {"", "", "", "", "tag", "none"};
        constexpr const char* kStreams[] = {"", "", "", "stream"};
        auto request = m_client->make<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        std::string blob = input.text(input.below(16));
        if (input.below(16) == 1) blob.resize(input.take<uint16_t>());
        request.clientId = m_id;
        request.head.base.dataNum = blob.empty() ? 0 : 1;
        request.head.base.dataSize[0] = blob.size();
        std::string("g").copy(request.graphName, 1);
        std::string(kTags[input.below(std::size(kTags))]).copy(request.graphTag, 8);
        std::string(kStreams[input.below(std::size(kStreams))]).copy(request.streamId, 8);
        if (blob.empty()) std::string("/dev/null").copy(request.graphPath, 64);
        send(std::string(reinterpret_cast<const char*>(&request), sizeof(request)) + blob);
        if (input.below(8) > 0) read(input);
    }
    void inferSome(FuzzInput& input) {
        for (size_t i = input.below(12); i < 12; ++i) {
            send(prepare(KELM_MESSAGE_INFER_TASK_REQ, input.below(4)));
        }
    }
    // A task with tensors of all kinds, right ones and wrong ones.
    void inferOn(FuzzInput& input) {
        constexpr const char* kNames[] = {"/kelm-fuzz", "kelm-fuzz", "/none", "../etc/passwd", ""};
        std::string record = prepare(KELM_MESSAGE_INFER_TASK_REQ, input.below(4));
        auto& request = *reinterpret_cast<KelmMsgReqInferTask*>(record.data());
        std::vector<int> descriptors;
        uint32_t role = KELM_FD_INPUT;
        for (KelmBuffer* buffer :
             {&request.inputBuffer, &request.outputBuffer, &request.auxBuffer}) {
            buffer->type = static_cast<uint32_t>(input.below(4));
            buffer->size = input.take<uint16_t>();
            buffer->auxRequested = buffer->auxFlags = static_cast<uint32_t>(input.below(8));
            if (buffer->type == KELM_BUFFER_SHARE_MEMORY) {
                std::string(kNames[input.below(std::size(kNames))]).copy(buffer->name, 64);
            } else if (buffer->type == KELM_BUFFER_ION) {
                request.head.base.fdType[descriptors.size()] = role;
                descriptors.push_back(input.below(4) > 0 ? m_file.get() : m_directory.get());
            }
            ++role;
        }
        request.head.base.fdNum = static_cast<uint32_t>(descriptors.size());
        input.patch(record);
        send(record);
        for (const int descriptor : descriptors) (void)m_client->sendFds("1234", {descriptor});
    }
    void ask(FuzzInput& input) {
        constexpr KelmMsgType kTypes[] = {
            KELM_MESSAGE_DESTROY_GRAPH_REQ,     KELM_MESSAGE_CANCEL_TASK_REQ,
            KELM_MESSAGE_QUERY_TASK_STATUS_REQ, KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ,
            KELM_MESSAGE_QUERY_STATUS_REQ,      KELM_MESSAGE_RESET_DEVICE_REQ,
            KELM_MESSAGE_UNREGISTER_REQ,
        };
        send(prepare(kTypes[input.below(std::size(kTypes))], input.below(32)));
    }
    // Any record, then some descriptors and bytes, announced or not.
    void sendPatched(FuzzInput& input) {
        std::string record =
            prepare(static_cast<uint32_t>(input.below(kMessageTypes + 1)), input.below(4));
        auto& head = *reinterpret_cast<KelmMsgBase*>(record.data());
        const std::string tail = input.text(input.below(40));
        if (input.below(2) == 0) {
            head.dataNum = tail.empty() ? 0 : 1;
            head.dataSize[0] = tail.size();
        }
        const size_t descriptors = input.below(4);
        if (input.below(2) == 0) head.fdNum = static_cast<uint32_t>(descriptors);
        input.patch(record);
        if (input.below(8) == 0) record.resize(input.take<uint16_t>() % record.size());
        send(record);
        for (size_t i = 0; i < descriptors; ++i) {
            (void)m_client->sendFds("1234", std::vector<int>(1 + input.below(3), m_file.get()));
        }
        send(tail);
    }
    void sendRaw(FuzzInput& input) { send(input.text(input.take())); }
    void testDescriptor(FuzzInput& input) {
        std::string record = prepare(KELM_MESSAGE_TEST_SEND_FD_REQ, 0);
        reinterpret_cast<KelmMsgBase*>(record.data())->fdNum = 1;
        input.patch(record);
        send(record);
        (void)m_client->sendFds("1234", {m_file.get()});
    }
    void hangUp(FuzzInput&) {
        m_client->hangUp();
        connect();
    }

    // The next message, if one comes soon.
    void read(FuzzInput&) { (void)readNext(WireClient::Millis(50)); }
    void readAll(FuzzInput&) {
        while (readNext(WireClient::Millis(0))) continue;
    }
    bool readNext(WireClient::Millis time) {
        const auto message = m_client->canReceive(time) ? m_client->receive(time) : std::nullopt;
        if (!message) return false;
        switch (message->type()) {
            case KELM_MESSAGE_REGISTER_RSP:
                m_id = message->as<KelmMsgRsp>().clientId;
                break;
            case KELM_MESSAGE_CREATE_GRAPH_RSP:
                m_graphs[m_nextGraph++ % m_graphs.size()] =
                    message->as<KelmMsgRspCreateGraph>().graphId;
                break;
            case KELM_MESSAGE_INFER_TASK_RSP:
                m_task = message->as<KelmMsgRspInferTask>().taskId;
                break;
            default:
                break;
        }
        return true;
    }

    // A good request, as far as this client knows; `which` of its graphs, of the last tasks, of the
    // devices, or the bits of a query.
    std::string prepare(uint32_t type, size_t which) {
        std::string record = makeRecord(type);
        auto request = m_client->make<KelmMsgReqInferTask>(KELM_MESSAGE_INFER_TASK_REQ);
        request.head.base.type = type;
        request.head.base.size = reinterpret_cast<const KelmMsgBase*>(record.data())->size;
        request.clientId = m_id;
        switch (type) {
            case KELM_MESSAGE_CANCEL_TASK_REQ:
            case KELM_MESSAGE_QUERY_TASK_STATUS_REQ:
                request.graphId = m_task + which % 4;
                break;
            case KELM_MESSAGE_QUERY_STATUS_REQ:
            case KELM_MESSAGE_RESET_DEVICE_REQ:
                request.graphId = which;
                break;
            default:
                request.graphId = m_graphs[which % m_graphs.size()];
        }
        // All requests begin alike: head, client, subject.
        const bool isOther =
            type == KELM_MESSAGE_REGISTER_REQ || type == KELM_MESSAGE_CREATE_GRAPH_REQ;
        const size_t known =
            isOther ? sizeof(KelmMsgReq) : offsetof(KelmMsgReqInferTask, inputBuffer);
        std::memcpy(record.data(), &request, std::min(record.size(), known));
        return record;
    }
    void send(const std::string& bytes) {
        // A service that takes nothing for so long reads no more of this client.
        if (m_client->canSend(WireClient::Millis(200))) (void)m_client->sendBytes(bytes);
    }

    const std::string m_path;
    std::optional<WireClient> m_client;
    const UniqueFd m_file{::memfd_create("tensor", MFD_CLOEXEC)};
    const UniqueFd m_directory{::open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    uint64_t m_id = 0;
    std::array<uint64_t, 4> m_graphs = {};
    size_t m_nextGraph = 0;
    uint64_t m_task = 0;
};

// The service, and its one client of good manners.
class Target {
 public:
    Target() : m_service(kConfig) {
        // What is logged is formatted, and of no use but for a find.
        const char* const log = ::getenv("KELM_FUZZ_LOG");
        const char* const path = log != nullptr ? log : "/dev/null";
        ::dup2(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
        const UniqueFd segment(::shm_open("/kelm-fuzz", O_CREAT | O_RDWR, 0600));
        (void)::ftruncate(segment.get(), 4096);
        (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);  // the last lines are those of a find
        m_service.start({}, {});
        require(eventually([] { return ServiceInProcess::waitReady(); }), "ready");
        m_polite.emplace(ServiceInProcess::socketPath(), "polite");
        m_graph = m_polite->createGraph({"polite's"}).graphId;
        require(m_graph != 0, "loaded");
    }

    void run(FuzzInput& input) {
        {
            std::vector<std::unique_ptr<Player>> players;
            for (int i = 0; i < 3; ++i) {
                players.push_back(std::make_unique<Player>(ServiceInProcess::socketPath()));
            }
            size_t who = 0;
            while (!input.isEmpty()) {
                if (input.below(4) == 0) who = input.below(players.size());
                players[who]->play(input);
            }
        }
        // Tasks of those that have left hold their places until they end.
        require(!m_polite->isDisconnected(), "the polite client keeps its connection");
        require(eventually([] { return countConnections() == 1; }, kPatience), "all others end");
        require(eventually([this] { return m_polite->infers(m_graph); }, kPatience), "served");
    }

 private:
    static int countConnections() {
        int count = 0;
        for (int number = ServiceInProcess::kFirstClientNumber; number < kMostNumbers; ++number) {
            if (IPC::ConnectionBase::findConnection(number)) ++count;
        }
        return count;
    }

    static constexpr int kMostNumbers = 64;  // the lowest free one is used

    ServiceInProcess m_service;
    std::optional<WireClient> m_polite;
    uint64_t m_graph = 0;
};

}  // namespace
}  // namespace kelm

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelm;
    static Target& target = *new Target();
    FuzzInput input(data, size);
    target.run(input);
    return 0;
}
