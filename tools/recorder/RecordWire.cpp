// Records a session of the client library with the service, for the replays: run it by hand, with
// the file to write. To be done when the wire has changed on purpose only, see docs/protocol.md.

#include <cstdio>

#include "fakes/ListenOn.h"
#include "fakes/ServiceProcess.h"
#include "protocol/src/InfoPackage.h"
#include "tests/frozen/FrozenSession.h"
#include "tests/frozen/LibrarySession.h"
#include "tests/wire/WireClient.h"

namespace kelm {
namespace {

using Way = FrozenRecord::Way;

constexpr uint32_t kRequests = 100;  // as the type of a row: all of them, or all responses
constexpr uint32_t kResponses = 101;
constexpr uint32_t kSnapshot = 102;
constexpr uint32_t kClientRequests = 103;  // all but registrations

// What is another in each run. Fields of a kind and a value get one name; 0 stands for nothing and
// does not vary, but for "any".
struct VaryingRow {
    uint32_t type;
    size_t offset;
    size_t size;
    const char* kind;
};

constexpr size_t fdOffset(size_t number) { return offsetof(KelmMsgBase, fd) + 4 * number; }
// The rows of the device for streams and of the other.
constexpr size_t kStream = offsetof(InfoPackage, devices);
constexpr size_t kShared = kStream + sizeof(InfoDeviceRow);
constexpr size_t kGraph = offsetof(InfoPackage, graphs);
constexpr const char* kAny = VaryingField::kAny;

constexpr VaryingRow kVaryingRows[] = {
    {kRequests, offsetof(KelmMsgReq, reqSeqNo), 8, "sequence"},
    // In all of these the client is named at the same place.
    {kClientRequests, offsetof(KelmMsgReqUnregister, clientId), 8, "client"},
    {kResponses, offsetof(KelmMsgRsp, reqSeqNo), 8, "sequence"},
    {kResponses, offsetof(KelmMsgRsp, rspSeqNo), 8, "sequence"},
    {kResponses, offsetof(KelmMsgRsp, clientId), 8, "client"},
    {KELM_MESSAGE_CREATE_GRAPH_REQ, offsetof(KelmMsgBase, data), 8, "address"},
    {KELM_MESSAGE_CREATE_GRAPH_REQ, offsetof(KelmMsgReqCreateGraph, graphPath), 1024, "path"},
    {KELM_MESSAGE_CREATE_GRAPH_REQ, offsetof(KelmMsgReqCreateGraph, graphData), 8, "address"},
    {KELM_MESSAGE_CREATE_GRAPH_RSP, offsetof(KelmMsgRspCreateGraph, graphId), 8, "graph"},
    {KELM_MESSAGE_DESTROY_GRAPH_REQ, offsetof(KelmMsgReqDestroyGraph, graphId), 8, "graph"},
    {KELM_MESSAGE_INFER_TASK_REQ, fdOffset(0), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_REQ, fdOffset(1), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_REQ, fdOffset(2), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, graphId), 8, "graph"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, inputBuffer.name), 64, "segment"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, inputBuffer.fd), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, outputBuffer.name), 64, "segment"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, outputBuffer.fd), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_REQ, offsetof(KelmMsgReqInferTask, auxBuffer.fd), 4, "fd"},
    {KELM_MESSAGE_INFER_TASK_RSP, offsetof(KelmMsgRspInferTask, taskId), 8, "task"},
    {KELM_MESSAGE_TASK_DONE_EVT, offsetof(KelmMsgEvt, evtSeqNo), 8, kAny},
    {KELM_MESSAGE_TASK_DONE_EVT, offsetof(KelmMsgEvtTaskDone, reqSeqNo), 8, "sequence"},
    {KELM_MESSAGE_TASK_DONE_EVT, offsetof(KelmMsgEvtTaskDone, clientId), 8, "client"},
    {KELM_MESSAGE_TASK_DONE_EVT, offsetof(KelmMsgEvtTaskDone, taskId), 8, "task"},
    {KELM_MESSAGE_CANCEL_TASK_REQ, offsetof(KelmMsgReqCancelTask, taskId), 8, "task"},
    {KELM_MESSAGE_CANCEL_TASK_RSP, offsetof(KelmMsgRspCancelTask, taskId), 8, "task"},
    {KELM_MESSAGE_QUERY_TASK_STATUS_REQ, offsetof(KelmMsgReqQueryTaskStatus, taskId), 8, "task"},
    {KELM_MESSAGE_QUERY_TASK_STATUS_RSP, offsetof(KelmMsgRspQueryTaskStatus, taskId), 8, "task"},
    {KELM_MESSAGE_QUERY_BUFFER_SIZE_REQ, offsetof(KelmMsgReqQueryBufferSize, graphId), 8, "graph"},
    {KELM_MESSAGE_QUERY_BUFFER_SIZE_RSP, offsetof(KelmMsgRspQueryBufferSize, graphId), 8, "graph"},
    // Rates of the graph, the client and the device in use, the second; temperatures of both.
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, serviceFps), 4, kAny},
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, deviceFps[1]), 4, kAny},
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, deviceThermal), 8, kAny},
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, graphFpsIn), 4, kAny},
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, graphFpsOut), 4, kAny},
    {KELM_MESSAGE_QUERY_STATUS_RSP, offsetof(KelmMsgRspQueryStatus, clientFps), 4, kAny},
    {kSnapshot, kStream + offsetof(InfoDeviceRow, thermal), 4, kAny},
    {kSnapshot, kStream + offsetof(InfoDeviceRow, thermalThrottlingLevel), 4, kAny},
    {kSnapshot, kShared + offsetof(InfoDeviceRow, currentGraphLoadTime), 8, kAny},
    {kSnapshot, kShared + offsetof(InfoDeviceRow, currentFps), 4, kAny},
    {kSnapshot, kShared + offsetof(InfoDeviceRow, thermal), 4, kAny},
    {kSnapshot, kShared + offsetof(InfoDeviceRow, thermalThrottlingLevel), 4, kAny},
    {kSnapshot, kStream + offsetof(InfoDeviceRow, previousGraphLoadTime), 8, kAny},
    {kSnapshot, kStream + offsetof(InfoDeviceRow, previousGraphUnloadTime), 8, kAny},
    {kSnapshot, kGraph + offsetof(InfoGraphRow, graphId), 8, "graph"},
    {kSnapshot, kGraph + offsetof(InfoGraphRow, fpsIn), 4, kAny},
    {kSnapshot, kGraph + offsetof(InfoGraphRow, fpsOut), 4, kAny},
    {kSnapshot, offsetof(InfoPackage, clients), 8, "client"},
    {kSnapshot, offsetof(InfoPackage, memVirtMB), 8, kAny},
    {kSnapshot, offsetof(InfoPackage, memResMB), 8, kAny},
    {kSnapshot, offsetof(InfoPackage, memShrMB), 8, kAny},
    {kSnapshot, offsetof(InfoPackage, memTotalMB), 8, kAny},
};

// Stands between a client and the service, and keeps what they tell one another.
class Recorder {
 public:
    explicit Recorder(const std::string& serviceDir) : m_serviceDir(serviceDir) {}

    const std::string& directory() const { return m_dir.path(); }

    // Until one of them hangs up.
    void run() {
        WireClient client = WireClient::acceptFrom(m_listener.get());
        WireClient service(m_serviceDir + "/kelm_service.sock");
        for (bool goesOn = true; goesOn;) {
            pollfd ends[] = {{client.fd(), POLLIN, 0},
                             {service.fd(), POLLIN, 0},
                             {m_snapshotListener.get(), POLLIN, 0}};
            (void)::poll(ends, std::size(ends), -1);
            if (ends[0].revents != 0) goesOn = pass(client, service, Way::kToService);
            if (ends[1].revents != 0) goesOn = goesOn && pass(service, client, Way::kToClient);
            if (ends[2].revents != 0) passSnapshot();
        }
    }

    std::vector<FrozenRecord> takeRecords() { return std::move(m_records); }

 private:
    bool pass(WireClient& from, WireClient& to, Way way) {
        FrozenRecord record{way, {}, {}};
        std::string& bytes = record.bytes;
        const auto readTo = [&](size_t end) {
            const size_t begin = bytes.size();
            bytes.resize(end);
            return from.readBytes(&bytes[begin], end - begin);
        };
        if (!readTo(sizeof(KelmMsgBase))) return false;
        const KelmMsgBase head = record.head();
        if (!readTo(head.size)) return false;
        to.sendBytes(bytes);
        for (size_t i = 0; i < head.fdNum; ++i) {
            const UniqueFd descriptor = from.receiveFd();
            to.sendFds(std::string_view(reinterpret_cast<const char*>(&head.fd[i]), sizeof(int)),
                       {descriptor.get()});
        }
        if (!readTo(head.size + head.dataSize[0])) return false;
        to.sendBytes(bytes.substr(head.size));
        keep(std::move(record), head.type,
             KelmMsgTypeStr[head.type] + std::string_view("KELM_MESSAGE_").size());
        return true;
    }

    void passSnapshot() {
        WireClient tool = WireClient::acceptFrom(m_snapshotListener.get());
        const WireClient service(m_serviceDir + "/kelm_snapshot.sock");
        FrozenRecord record{Way::kSnapshot, {}, std::string(sizeof(InfoPackage), '\0')};
        (void)service.readBytes(record.bytes.data(), record.bytes.size());
        tool.sendBytes(record.bytes);
        keep(std::move(record), kSnapshot, "SNAPSHOT");
    }

    void keep(FrozenRecord record, uint32_t type, const std::string& name) {
        record.name = name + "." + std::to_string(++m_counts[name]);
        for (const VaryingRow& row : kVaryingRows) {
            const bool isFor = row.type == type ||
                               (row.type == kRequests && record.way == Way::kToService) ||
                               (row.type == kClientRequests && record.way == Way::kToService &&
                                type != KELM_MESSAGE_REGISTER_REQ) ||
                               (row.type == kResponses && record.way == Way::kToClient &&
                                type != KELM_MESSAGE_TASK_DONE_EVT);
            if (isFor) mark(record, row);
        }
        std::ranges::sort(record.varying, {}, &VaryingField::offset);
        m_records.push_back(std::move(record));
    }

    void mark(FrozenRecord& record, const VaryingRow& row) {
        std::string name = row.kind;
        if (name != kAny) {
            const std::string value = record.bytes.substr(row.offset, row.size);
            if (value.find_first_not_of('\0') == value.npos) return;
            std::map<std::string, size_t>& values = m_values[row.kind];
            name += std::to_string(values.emplace(value, values.size() + 1).first->second);
        }
        record.varying.push_back({name, row.offset, row.size});
    }

    const std::string m_serviceDir;
    const TempDir m_dir;
    const UniqueFd m_listener = listenOn(m_dir.path() + "/kelm_service.sock");
    const UniqueFd m_snapshotListener = listenOn(m_dir.path() + "/kelm_snapshot.sock");
    std::map<std::string, int> m_counts;
    std::map<std::string, std::map<std::string, size_t>> m_values;  // by kind
    std::vector<FrozenRecord> m_records;
};

int record(const std::string& path) {
    ServiceProcess service(std::string("{") + LibrarySession::kServiceConfig + "}");
    service.start();
    if (!service.waitReady()) return EXIT_FAILURE;
    LibrarySession::useUpNumbers(service.runDir());
    Recorder recorder(service.runDir());
    std::thread between([&recorder] { recorder.run(); });
    FrozenSession session;
    const std::string graph = service.files().write("graph", LibrarySession::kGraph);
    session.outcomes = LibrarySession::run(recorder.directory(), graph);
    between.join();
    session.records = recorder.takeRecords();
    std::ofstream file(path);
    file << "# A client of the library and the service, made by record_wire. FrozenSession.h tells "
            "the form.\n";
    session.write(file);
    return file ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace kelm

int main(int argc, char** argv) {
    if (argc != 2) {
        (void)std::fprintf(stderr, "record_wire: name the file to write\n");
        return 2;
    }
    return kelm::record(argv[1]);
}
