#include "records/ClientConnection.h"

#include "fakes/TempDir.h"
#include "records/KelmClient.h"
#include "utils/IPC.h"

namespace kelm {
namespace {

TEST(ClientConnectionTest, OneOfTwoRecordsClosesTheSharedConnection) {
    const TempDir dir;
    const auto listener = std::make_shared<IPC::ConnectionUDS>(nullptr);
    listener->create(dir.path() + "/socket", {0660, "", ""});
    listener->listen();
    const auto peer = std::make_shared<IPC::ConnectionUDS>(nullptr);
    ASSERT_TRUE(peer->connect(dir.path() + "/socket"));

    auto connection = std::make_shared<ClientConnection>(peer);
    EXPECT_EQ(connection->getSocket(), peer->getSimulateFD());
    auto first = std::make_unique<KelmClient>(1, "first", connection, 2, 0);
    auto second = std::make_unique<KelmClient>(2, "second", std::move(connection), 2, 0);
    first.reset();
    EXPECT_TRUE(peer->connected());
    EXPECT_EQ(second->getSocket(), peer->getSimulateFD());
    second.reset();
    EXPECT_FALSE(peer->connected());
}

}  // namespace
}  // namespace kelm
