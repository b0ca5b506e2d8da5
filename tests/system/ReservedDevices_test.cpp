#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

using ReservedDevicesTest = SystemFixture;

TEST_F(ReservedDevicesTest, GraphsOfOneBlobRunOnTheirReservedDevicesAndNowhereElse) {
    start(ServiceConfig::fakeDevices(5, 2) + R"(, "scheduler_config": [{"subclass": 0,
        "graph_tag_map": {"one": 1, "two": 2}, "stream_device_number": 1}])");
    const GraphWish wishes[] = {{"blob", "of-one", "one"},
                                {"blob", "of-two", "two"},
                                {"blob", "of-camera", "", "camera"},
                                {"blob", "shared"}};
    std::vector<WireClient> users;
    std::vector<uint64_t> graphs;
    for (const GraphWish& wish : wishes) {
        WireClient& user = users.emplace_back(path(), "user");
        EXPECT_TRUE(user.infers(graphs.emplace_back(user.createGraph(wish).graphId))) << wish.name;
    }
    const std::multiset<std::string> devices = {"of-one", "of-two", "of-two", "of-camera",
                                                "shared"};
    EXPECT_TRUE(eventually([&] {
        const auto status = users[0].queryStatus(2);
        return devices == std::multiset<std::string>(status.deviceGraphName,
                                                     status.deviceGraphName + status.deviceNum);
    }));
    const auto statusOf = [&](const GraphWish& wish) {
        return WireClient(path(), "another").createGraph(wish).head.status;
    };
    const GraphWish next{"next", "next", "one", "camera"};  // the tag counts
    EXPECT_EQ(statusOf(next), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_EQ(statusOf({"next", "next", "", "another"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
    ASSERT_EQ(users[0].destroyGraph(graphs[0]), KELM_OK);  // from here on there is a device
    EXPECT_EQ(statusOf({"next", "next", "two"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_EQ(statusOf({"next", "next", "none"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_EQ(statusOf(next), KELM_OK);
}

}  // namespace
}  // namespace kelm
