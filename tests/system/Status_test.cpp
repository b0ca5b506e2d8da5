#include <atomic>
#include <deque>
#include <thread>

#include "client/Client.h"
#include "client/Decode.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

using client::Client;
using client::ServiceStatus;
using client::StatusPart;
using client::StatusParts;

using Record = KelmMsgRspQueryStatus;

template <class Rows>
std::set<std::string> namesOf(const Rows& rows) {
    std::set<std::string> names;
    for (const auto& row : rows) names.insert(row.name);
    return names;
}

template <class Rows>
auto rowOf(const Rows& rows, const std::string& name) {
    const auto row =
        std::find_if(rows.begin(), rows.end(), [&](const auto& each) { return each.name == name; });
    return row != rows.end() ? *row : typename Rows::value_type();
}

// Bytes that a record's rows do not use, as the bits of the query tell them.
class RestOfRecord {
 public:
    explicit RestOfRecord(const Record& record) : m_rest(record) {
        clear(m_rest.head.base.type);
        clear(m_rest.head.base.size);
        clear(m_rest.head.reqSeqNo);
        clear(m_rest.head.rspSeqNo);
        clear(m_rest.head.clientId);
        clear(m_rest.queryType);
        const StatusParts parts(record.queryType);
        const bool all = parts.has(StatusPart::kOverview);
        if (all) clear(m_rest.serviceFps);
        if (all || parts.has(StatusPart::kDevices)) clearDevices(parts.has(StatusPart::kDevices));
        const bool graphs = all || parts.has(StatusPart::kGraphs);
        if (graphs) clearGraphs();
        if (all || parts.has(StatusPart::kClients)) clearClients(graphs);
        if (parts.has(StatusPart::kSchedulers)) {
            clearText(m_rest.deviceSchedulerName);
            clearText(m_rest.taskSchedulerName);
        }
    }

    // Where the first byte is that should be zero, or the size of the record.
    size_t firstUsed() const {
        const char* const bytes = reinterpret_cast<const char*>(&m_rest);
        return static_cast<size_t>(
            std::find_if(bytes, bytes + sizeof(m_rest), [](char byte) { return byte != 0; }) -
            bytes);
    }

 private:
    template <class Value>
    static void clear(Value& value) {
        std::memset(&value, 0, sizeof(value));
    }
    template <size_t kSize>
    static void clearText(char (&text)[kSize]) {
        std::memset(text, 0, ::strnlen(text, kSize - 1));  // the end of the text must be there
    }
    static size_t rows(int32_t count, size_t limit) {
        return std::min(static_cast<size_t>(count), limit);
    }

    void clearDevices(bool details) {
        for (size_t i = 0; i < rows(m_rest.deviceNum, kStatusDevices); ++i) {
            clearText(m_rest.deviceName[i]);
            clear(m_rest.deviceFps[i]);
            if (!details) continue;
            clearText(m_rest.deviceGraphName[i]);
            clear(m_rest.deviceThermal[i]);
            clear(m_rest.deviceId[i]);
            clear(m_rest.deviceSubclass[i]);
        }
        clear(m_rest.deviceNum);
    }
    void clearGraphs() {
        for (size_t i = 0; i < rows(m_rest.graphNum, kStatusGraphs); ++i) {
            clearText(m_rest.graphName[i]);
            clear(m_rest.graphFpsIn[i]);
            clear(m_rest.graphFpsOut[i]);
        }
        m_graphNum = m_rest.graphNum;
        clear(m_rest.graphNum);
    }
    // As many rows as graphs are in the record.
    void clearClients(bool withGraphs) {
        const int32_t number = withGraphs ? std::min(m_rest.clientNum, m_graphNum) : 0;
        for (size_t i = 0; i < rows(number, kStatusClients); ++i) {
            clearText(m_rest.clientName[i]);
            clear(m_rest.clientFps[i]);
        }
        clear(m_rest.clientNum);
    }

    Record m_rest;
    int32_t m_graphNum = 0;
};

KelmMsgReqQueryStatus query(uint64_t clientId, uint64_t type, uint64_t sequence = 1) {
    auto request =
        RawClient::request<KelmMsgReqQueryStatus>(KELM_MESSAGE_QUERY_STATUS_REQ, sequence);
    request.clientId = clientId;
    request.queryType = type;
    return request;
}

class StatusTest : public SystemFixture {
 protected:
    // A client with a graph of its own.
    struct Peer {
        Peer(const std::string& path, const std::string& name) : raw(path) {
            id = raw.registerClient(name.c_str());
            graph = raw.createGraph(id, ("graph of " + name).c_str(), "blob of " + name);
        }
        RawClient raw;
        uint64_t id = 0;
        uint64_t graph = 0;
    };

    static Record ask(Peer& peer, uint64_t type) {
        return peer.raw.call<Record>(query(peer.id, type), KELM_MESSAGE_QUERY_STATUS_RSP);
    }
    InfoPackage readPackage() {
        InfoPackage package{};
        const RawClient tool(service().runDir() + "/kelm_snapshot.sock");
        EXPECT_TRUE(tool.readBytes(&package, sizeof(package)));
        return package;
    }
};

TEST_F(StatusTest, BitBringsTheWrongPart) {
    start(1);
    Peer busy(path(), "busy");
    Peer idle(path(), "idle");
    Peer asking(path(), "asking");
    ASSERT_NE(asking.raw.createGraph(asking.id, "another", "blob"), 0U);  // more than clients
    const std::set<std::string> graphs{"graph of busy", "graph of idle", "graph of asking",
                                       "another"};
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(infers(busy.raw, busy.id, busy.graph));
    for (uint64_t type = 1; type < 32; ++type) {
        SCOPED_TRACE(type);
        const StatusParts parts(type);
        const bool all = parts.has(StatusPart::kOverview);
        const Record record = ask(asking, type);
        EXPECT_EQ(record.queryType, type);
        EXPECT_EQ(record.head.clientId, asking.id);
        EXPECT_EQ(RestOfRecord(record).firstUsed(), sizeof(Record));
        const ServiceStatus status = client::decodeStatus(record);
        EXPECT_EQ(status.serviceFps > 0.0f, all);

        const bool details = parts.has(StatusPart::kDevices);
        EXPECT_EQ(status.devices.size(), all || details ? 3U : 0U);
        std::set<uint32_t> ids;
        for (const auto& device : status.devices) {
            EXPECT_EQ(device.name.substr(0, 4), "Fake");
            EXPECT_TRUE(!details || (device.fps > 0.0f) == (device.graph == "graph of busy"));
            ids.insert(device.id);
        }
        EXPECT_EQ(ids.size(), details ? 3U : status.devices.size() / 3);
        const bool graphRows = all || parts.has(StatusPart::kGraphs);
        EXPECT_EQ(namesOf(status.graphs), graphRows ? graphs : std::set<std::string>());
        EXPECT_EQ(rowOf(status.graphs, "graph of busy").fpsIn > 0.0f, graphRows);
        EXPECT_EQ(rowOf(status.graphs, "graph of busy").fpsOut > 0.0f, graphRows);
        EXPECT_EQ(rowOf(status.graphs, "graph of idle").fpsIn, 0.0f);
        const bool clients = all || parts.has(StatusPart::kClients);
        EXPECT_EQ(status.clientCount, clients ? 3U : 0U);
        EXPECT_EQ(status.clients.size(), clients && graphRows ? 3U : 0U);
        EXPECT_EQ(rowOf(status.clients, "busy").fps > 0.0f, clients && graphRows);
        EXPECT_EQ(rowOf(status.clients, "idle").fps, 0.0f);
        const bool schedulers = parts.has(StatusPart::kSchedulers);
        EXPECT_EQ(status.deviceScheduler, schedulers ? "DS.Squeeze2" : "");
        EXPECT_EQ(status.taskScheduler, schedulers ? "TS.Polling" : "");
    }
    for (const uint64_t unknown : {0U, 32U}) {  // nothing comes, and nothing is in the way
        ASSERT_TRUE(asking.raw.send(query(asking.id, unknown, 77)));
        EXPECT_EQ(ask(asking, 16).head.reqSeqNo, 1U) << unknown;
    }
}

TEST_F(StatusTest, MoreThanTheRecordHoldsIsWrittenBehindIt) {
    constexpr int kPeers = 70;
    constexpr int kDevices = 40;
    startWith(fakeDevices(kDevices, 1));
    std::deque<Peer> peers;
    const std::string name(31, 'n');
    const std::string graphName(511, 'g');
    for (int i = 0; i < kPeers; ++i) {
        peers.emplace_back(path(), i == 0 ? name : "peer " + std::to_string(i));
        ASSERT_NE(peers.back().graph, 0U) << i << lastLines();
        ASSERT_NE(peers.back().raw.createGraph(peers.back().id, graphName.c_str(), "of all"), 0U);
    }
    for (uint64_t type = 1; type < 32; ++type) {
        SCOPED_TRACE(type);
        const Record record = ask(peers.back(), type);
        EXPECT_EQ(RestOfRecord(record).firstUsed(), sizeof(Record));
        const ServiceStatus status = client::decodeStatus(record);
        const bool all = status.parts.has(StatusPart::kOverview);
        const bool devices = all || status.parts.has(StatusPart::kDevices);
        const bool graphs = all || status.parts.has(StatusPart::kGraphs);
        const bool clients = all || status.parts.has(StatusPart::kClients);
        EXPECT_EQ(record.deviceNum, devices ? kDevices : 0);
        EXPECT_EQ(record.graphNum, graphs ? kPeers + 1 : 0);
        EXPECT_EQ(record.clientNum, clients ? kPeers : 0);
        EXPECT_EQ(namesOf(status.devices).size(), devices ? kStatusDevices : 0U);
        EXPECT_EQ(namesOf(status.graphs).size(), graphs ? kStatusGraphs : 0U);
        EXPECT_EQ(namesOf(status.clients).size(), graphs && clients ? kStatusClients : 0U);
        EXPECT_TRUE(status.clients.empty() || status.clients[0].name == name);
    }

    const InfoPackage package = readPackage();
    const client::Snapshot snapshot = client::decodeSnapshot(package);
    EXPECT_EQ(package.deviceCount, 0);
    EXPECT_EQ(snapshot.devices.size(), static_cast<size_t>(kPackageDevices));
    EXPECT_GE(snapshot.graphCount, static_cast<uint32_t>(kPackageGraphs));
    EXPECT_EQ(namesOf(snapshot.graphs).size(), static_cast<size_t>(kPackageGraphs));
    EXPECT_GE(snapshot.clientCount, static_cast<uint32_t>(kPackageClients));
    EXPECT_EQ(namesOf(snapshot.clients).size(), static_cast<size_t>(kPackageClients));
    EXPECT_EQ(snapshot.clients[0].name, name);
    const auto shared = rowOf(snapshot.graphs, graphName);
    EXPECT_TRUE(shared.id == 0 || shared.clients.size() == static_cast<size_t>(kPackageClients));
    EXPECT_GT(snapshot.memory.virtualMB, snapshot.memory.residentMB);
    EXPECT_GT(snapshot.memory.residentMB, 0U);
    EXPECT_GT(snapshot.memory.totalMB, snapshot.memory.residentMB);
    EXPECT_TRUE(serves());
}

TEST_F(StatusTest, QueriesAreLostDoubledOrStandInTheWay) {
    constexpr uint64_t kQueries = 500;
    start(0);
    Peer peer(path(), "peer");
    std::thread sender([&] {
        for (uint64_t i = 1; i <= kQueries; ++i) {
            EXPECT_TRUE(peer.raw.send(query(peer.id, 1 + i % 31, i)));
        }
    });
    std::set<uint64_t> answered;
    std::atomic<bool> finished{false};
    std::thread reader([&] {
        for (uint64_t i = 0; i < kQueries; ++i) {
            const auto answer = peer.raw.receiveType(KELM_MESSAGE_QUERY_STATUS_RSP);
            if (!answer) break;
            EXPECT_TRUE(answered.insert(answer->as<KelmMsgRsp>().reqSeqNo).second);
            EXPECT_EQ(RestOfRecord(answer->as<Record>()).firstUsed(), sizeof(Record));
        }
        finished = true;
    });
    do {  // meanwhile others come and go
        EXPECT_TRUE(serves());
    } while (!finished);
    reader.join();
    sender.join();
    EXPECT_EQ(answered.size(), kQueries);
}

TEST_F(StatusTest, UnreadAnswersKeepTheServiceFromEnding) {
    constexpr int kQueries = 3000;
    start(0);
    Peer peer(path(), "peer");
    std::atomic<int> sent{0};
    std::thread sender([&] {
        while (sent < kQueries && peer.raw.send(query(peer.id, 31))) ++sent;
    });
    EXPECT_TRUE(eventually([&] { return sent > kQueries / 2; }));
    endService();
    sender.join();
}

TEST_F(StatusTest, LibraryAsksForTheWrongPart) {
    start(1);
    auto client = Client::connect(path());
    ASSERT_TRUE(client) << client.error().text();
    ASSERT_FALSE(client.value()->registerClient("library"));
    const std::string blob = "blob";
    client::GraphOptions options;
    options.name = "its graph";
    ASSERT_TRUE(client.value()->createGraph(std::as_bytes(std::span(blob)), options));
    const auto ask = [&](StatusParts parts) {
        const auto status = client.value()->queryStatus(parts);
        EXPECT_TRUE(status) << status.error().text();
        return status ? status.value() : ServiceStatus();
    };
    EXPECT_EQ(ask(StatusPart::kDevices).devices.size(), 3U);
    EXPECT_EQ(namesOf(ask(StatusPart::kGraphs).graphs), std::set<std::string>{"its graph"});
    EXPECT_EQ(namesOf(ask(StatusPart::kClients).clients), std::set<std::string>{"library"});
    EXPECT_EQ(ask(StatusPart::kSchedulers).taskScheduler, "TS.Polling");
    const ServiceStatus all = ask(StatusParts::all());
    EXPECT_EQ(all.devices.size() + all.graphs.size() + all.clients.size(), 5U);
    EXPECT_EQ(all.deviceScheduler, "DS.Squeeze2");
}

}  // namespace
}  // namespace kelm
