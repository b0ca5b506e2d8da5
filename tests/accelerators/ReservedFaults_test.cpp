#include "accelerators/AcceleratorFixture.h"

namespace kelm {
namespace {

using ReservedFaultsTest = AcceleratorFixture;

TEST_F(ReservedFaultsTest, TasksGoOnElsewhereWhenADeviceFailsAndStays) {
    const struct {
        const char* reservation;
        GraphWish wish;
    } rows[] = {{R"("stream_device_number": 2)", {.stream = "camera"}},
                {R"("graph_tag_map": {"one": 1, "two": 1})", {.tag = "one"}}};
    for (const auto& [reservation, wish] : rows) {
        SCOPED_TRACE(reservation);
        plug("1.1");
        plug("1.2");
        startService(R"("scheduler_config": [{"subclass": 0, )" + std::string(reservation) + "}]");
        TensorLoad load(path(), {.name = "client", .graphs = {"graph"}}, wish);
        ASSERT_TRUE(load.getsOn()) << lastLines();
        host().order("fail * qxDeviceHWReset -1\nfail * qxFifoReadElem -2 1");
        ASSERT_TRUE(waitLogCount("is lost, it gets no more graphs", 1)) << lastLines();
        ASSERT_TRUE(load.getsOn()) << lastLines();
        EXPECT_EQ(load.finish(), "");
        host().order("");
        endService();
    }
}

// One device takes the graph and fails while the pass waits for the other, which refuses it.
TEST_F(ReservedFaultsTest, CreateWhoseDeviceDiesBeforeThePassEndsIsAnswered) {
    constexpr int kRefused = -3;
    plug("1.1");
    plug("1.2");
    startService(R"("scheduler_config": [{"subclass": 0, "graph_tag_map": {"one": 2}}])");
    host().order(
        "fail 1.1 qxDeviceHWReset -1\n"
        "slow 1.2 qxGraphAllocate 3000 1\n"
        "fail 1.2 qxGraphAllocate -3");
    auto creator = client::Client::connect(path());
    ASSERT_TRUE(creator);
    ASSERT_FALSE(creator.value()->registerClient("creator"));
    auto created = std::async(std::launch::async, [&] {
        client::GraphOptions options;
        options.name = "graph";
        options.tag = "one";
        const std::string blob = "graph";
        const auto graph = creator.value()->createGraph(std::as_bytes(std::span(blob)), options);
        return graph ? 0 : graph.error().code();
    });
    WireClient other(path(), "other");
    auto reset = other.make<KelmMsgReqResetDevice>(KELM_MESSAGE_RESET_DEVICE_REQ);
    ASSERT_TRUE(waitWithEvents([&] {
        for (const client::DeviceStatus& row : status().devices) {
            if (row.name != "1.1" || row.graph != "graph") continue;
            reset.deviceId = row.id;
            return true;
        }
        return false;
    })) << lastLines();
    EXPECT_EQ(other.ask<KelmMsgRsp>(reset).status, -1);
    EXPECT_EQ(created.wait_for(std::chrono::seconds(30)), std::future_status::ready) << lastLines();
    creator.value().reset();  // ends the wait
    EXPECT_EQ(created.get(), kRefused);
}

}  // namespace
}  // namespace kelm
