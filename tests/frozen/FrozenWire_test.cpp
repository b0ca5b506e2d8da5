#include "fakes/ListenOn.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "tests/frozen/FrozenFields.h"
#include "tests/frozen/LibrarySession.h"

namespace kelm {
namespace {

using Way = FrozenRecord::Way;

class FrozenWireTest : public SystemFixture {
 protected:
    std::ifstream m_file{KELM_FROZEN_SESSION};
    const FrozenSession m_session = FrozenSession::read(m_file);
    FrozenFields m_fields;
};

// Nothing, or what has come instead of the record. What is missing counts as zeros: a record of
// another size shows in its head.
std::string receive(const WireClient& from, const FrozenRecord& record, FrozenFields& fields) {
    std::string bytes(record.bytes.size(), '\0');
    const auto read = [&](size_t begin, size_t end) {
        return from.readBytes(&bytes[begin], end - begin, 5s);
    };
    if (!read(0, 1)) return record.name + ": does not come";
    bool isWhole = read(1, record.recordSize());
    for (size_t i = 0; isWhole && i < record.descriptors(); ++i) isWhole = bool(from.receiveFd());
    isWhole = isWhole && read(record.recordSize(), bytes.size());
    const std::string fault = fields.compare(record, bytes);
    return !fault.empty() || isWhole ? fault : record.name + ": a descriptor or its end is missing";
}

bool hangsUp(const WireClient& peer) {
    char more = 0;
    return !peer.readBytes(&more, 1) && peer.isDisconnected();
}

TEST_F(FrozenWireTest, ServiceAnswersTheFrozenClientAsFrozen) {
    ASSERT_FALSE(m_session.records.empty());
    start(LibrarySession::kServiceConfig);
    LibrarySession::useUpNumbers(service().runDir());
    std::string graph = service().files().write("graph", LibrarySession::kGraph);
    graph.resize(1024);
    m_fields.set("path1", graph);
    const UniqueFd tensor(::memfd_create("tensor", MFD_CLOEXEC));
    WireClient client(path());
    std::string last = "nothing";
    for (const FrozenRecord& record : m_session.records) {
        SCOPED_TRACE("after " + std::exchange(last, record.name));
        if (record.way == Way::kToService) {
            const std::string bytes = m_fields.fill(record);
            ASSERT_TRUE(client.sendBytes(bytes.data(), record.recordSize())) << record.name;
            for (size_t i = 0; i < record.descriptors(); ++i) {
                ASSERT_TRUE(client.sendFds("fd  ", {tensor.get()})) << record.name;
            }
            ASSERT_TRUE(client.sendBytes(bytes.substr(record.recordSize()))) << record.name;
        } else if (record.way == Way::kToClient) {
            ASSERT_EQ(receive(client, record, m_fields), "");
        } else {
            const WireClient tool(service().runDir() + "/kelm_snapshot.sock");
            ASSERT_EQ(receive(tool, record, m_fields), "");
        }
    }
    EXPECT_TRUE(hangsUp(client));
}

// What a service of the past does; nothing, or what was not as it was then. It stops listening at
// the end, so that no client waits for it.
std::string serveAsFrozen(const FrozenSession& session, FrozenFields& fields, UniqueFd listener,
                          UniqueFd snapshotListener) {
    WireClient client = WireClient::acceptFrom(listener.get());
    std::string last = "nothing";
    for (const FrozenRecord& record : session.records) {
        std::string fault;
        if (record.way == Way::kToService) {
            fault = receive(client, record, fields);
        } else if (record.way == Way::kToClient) {
            if (!client.sendBytes(fields.fill(record))) fault = record.name + ": not taken";
        } else {
            WireClient tool = WireClient::acceptFrom(snapshotListener.get());
            if (!tool.sendBytes(fields.fill(record))) fault = record.name + ": not taken";
        }
        if (!fault.empty()) return fault.append(", after ").append(last);
        last = record.name;
    }
    return hangsUp(client) ? "" : "bytes after the last record, or no end";
}

TEST(FrozenFieldsTest, FirstByteThatDiffersIsNamed) {
    std::istringstream text("> A.1 12 id1 4 4 any 8 2\n    0: 01 02 10: 07\n");
    const FrozenRecord record = FrozenSession::read(text).records.at(0);
    const std::pair<std::string, std::string> rows[] = {
        {{1, 2, 0, 0, 8, 0, 0, 0, 9, 9, 7, 0}, ""},
        {{1, 2, 0, 0, 8, 0, 0, 0, 3, 3, 7, 0}, ""},
        {{1, 2, 0, 0, 9, 0, 0, 0, 9, 9, 7, 0}, "A.1: byte 4 is 09, frozen as 08"},
        {{2, 1, 0, 0, 8, 0, 0, 0, 9, 9, 7, 0}, "A.1: byte 0 is 02, frozen as 01"},
        {{1, 2, 0, 0, 8, 0, 0, 0, 9, 9, 0, 7}, "A.1: byte 10 is 00, frozen as 07"},
    };
    FrozenFields fields;
    for (const auto& [received, fault] : rows) EXPECT_EQ(fields.compare(record, received), fault);
}

TEST_F(FrozenWireTest, LibraryAsksTheFrozenServiceAsFrozen) {
    const TempDir dir;
    const std::string graph = dir.write("graph", LibrarySession::kGraph);
    UniqueFd listener = listenOn(dir.path() + "/kelm_service.sock");
    UniqueFd snapshotListener = listenOn(dir.path() + "/kelm_snapshot.sock");
    auto fault = startCalling([&] {
        return serveAsFrozen(m_session, m_fields, std::move(listener), std::move(snapshotListener));
    });
    const auto outcomes = LibrarySession::run(dir.path(), graph);
    EXPECT_EQ(fault.get(), "");
    EXPECT_THAT(outcomes, ::testing::ElementsAreArray(m_session.outcomes));
}

}  // namespace
}  // namespace kelm
