#include "client/Decode.h"

#include "protocol/src/InfoPackage.h"
#include "protocol/src/KelmMessage.h"

namespace kelm::client {
namespace {

using std::numeric_limits;

TEST(DecodeTest, CountsOfAnAnswerAreHeldToItsRows) {
    const struct {
        int32_t devices, graphs, clients;
        size_t deviceRows, graphRows, clientRows;
    } rows[] = {
        {INT32_MAX, INT32_MAX, INT32_MAX, 32, 64, 64},
        {-1, INT32_MIN, -7, 0, 0, 0},
        {1, 2, 5, 1, 2, 2},
        {1, 5, 2, 1, 5, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.clients);
        KelmMsgRspQueryStatus answer{};
        answer.queryType = 31;
        answer.deviceNum = row.devices;
        answer.graphNum = row.graphs;
        answer.clientNum = row.clients;
        const ServiceStatus status = decodeStatus(answer);
        EXPECT_EQ(status.devices.size(), row.deviceRows);
        EXPECT_EQ(status.graphs.size(), row.graphRows);
        EXPECT_EQ(status.clients.size(), row.clientRows);
        EXPECT_EQ(status.clientCount, static_cast<uint32_t>(std::max(row.clients, 0)));
    }
}

TEST(DecodeTest, TextsEndWithTheirFieldsAndNumbersAreFinite) {
    KelmMsgRspQueryStatus answer;
    std::memset(&answer, 'x', sizeof(answer));
    answer.queryType = 31;
    answer.deviceNum = answer.graphNum = answer.clientNum = 1;
    answer.serviceFps = -numeric_limits<float>::infinity();
    answer.deviceFps[0] = numeric_limits<float>::quiet_NaN();
    answer.deviceThermal[0] = numeric_limits<float>::infinity();
    answer.clientFps[0] = 2.5f;
    answer.graphFpsIn[0] = -3.0f;
    const ServiceStatus status = decodeStatus(answer);
    EXPECT_EQ(status.serviceFps, 0.0f);
    EXPECT_EQ(status.devices[0].graph, std::string(512, 'x'));
    EXPECT_EQ(status.devices[0].fps, 0.0f);
    EXPECT_EQ(status.devices[0].thermal, 0.0f);
    EXPECT_EQ(status.clients[0].name, std::string(32, 'x'));
    EXPECT_EQ(status.clients[0].fps, 2.5f);
    EXPECT_EQ(status.graphs[0].fpsIn, 0.0f);
    answer.queryType = 1;  // no details, no schedulers: what stands in their fields means nothing
    const ServiceStatus overview = decodeStatus(answer);
    EXPECT_EQ(overview.devices[0].graph, "");
    EXPECT_EQ(overview.taskScheduler, "");
}

TEST(DecodeTest, PackageIsHeldToItsRowsAndShowsUncountedDevices) {
    auto package = std::make_unique<InfoPackage>();
    package->graphCount = INT32_MAX;
    package->clientCount = INT32_MIN;
    package->memResMB = -5;
    InfoDeviceRow& device = package->devices[3];  // the count of devices stays 0
    device.deviceId = 77;
    device.currentGraphCount = INT32_MAX;
    device.previousGraphCount = -1;
    std::ranges::fill(device.currentGraphLoadTime[1], '1');
    device.currentFps[0] = numeric_limits<float>::quiet_NaN();
    package->graphs[63].clientNum = 1000;
    package->graphs[63].runningDeviceNum = -2;
    std::ranges::fill(package->graphs[63].graphName, 'x');
    const Snapshot snapshot = decodeSnapshot(*package);
    ASSERT_EQ(snapshot.devices.size(), 4U);
    EXPECT_EQ(snapshot.devices[3].id, 77U);
    ASSERT_EQ(snapshot.devices[3].current.size(), 2U);
    EXPECT_EQ(snapshot.devices[3].current[0].fps, 0.0f);
    EXPECT_EQ(snapshot.devices[3].current[1].loadTime, std::string(9, '1'));
    EXPECT_TRUE(snapshot.devices[3].previous.empty());
    ASSERT_EQ(snapshot.graphs.size(), 64U);
    EXPECT_EQ(snapshot.graphs[63].name, std::string(512, 'x'));
    EXPECT_EQ(snapshot.graphs[63].clients.size(), 64U);
    EXPECT_EQ(snapshot.graphs[63].runningDevices, 0U);
    EXPECT_TRUE(snapshot.clients.empty());
    EXPECT_EQ(snapshot.memory.residentMB, 0U);
}

}  // namespace
}  // namespace kelm::client
