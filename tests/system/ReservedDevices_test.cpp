#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

GraphWish wishFor(const std::string& name, const std::string& tag = "",
                  const std::string& stream = "") {
    return {name, name, tag, stream};
}

// A client with one graph after the other.
class User : public WireClient {
 public:
    explicit User(const std::string& path) : WireClient(path, "user") {}

    // The status of the answer.
    int32_t create(const GraphWish& wish) {
        const auto answer = createGraph(wish);
        if (answer.head.status == KELM_OK) m_graph = answer.graphId;
        return answer.head.status;
    }
    int32_t destroy() { return destroyGraph(m_graph); }

    // How many of so many tasks on the last graph, all under way at once, come to a good end.
    int infer(int tasks) {
        EXPECT_EQ(flood(makeInfer(m_graph), tasks), tasks);
        int ended = 0;
        for (int i = 0; i < tasks; ++i) {
            const auto done = receiveType(KELM_MESSAGE_TASK_DONE_EVT);
            if (done && done->as<KelmMsgEvtTaskDone>().status == KELM_OK) ++ended;
        }
        return ended;
    }

 private:
    uint64_t m_graph = 0;
};

class ReservedDevicesTest : public SystemFixture {
 protected:
    // Devices for the tags "one" and "two", as many as they say, and for a stream.
    void startReserved(int devices, const std::string& streams) {
        start(ServiceConfig::fakeDevices(devices, 2) + R"(, "scheduler_config": [{"subclass": 0,
            "graph_tag_map": {"one": 1, "two": 2}, "stream_device_number": )" +
              streams + "}]");
    }

    // Whether the devices come to have these graphs, by their names.
    bool liesSo(const std::multiset<std::string>& devices) const {
        return eventually([&] {
            std::multiset<std::string> found;
            const auto package = readPackage();
            for (const InfoDeviceRow& row : package->devices) {
                std::set<std::string> graphs;
                for (int i = 0; i < row.currentGraphCount; ++i) {
                    graphs.insert(row.currentGraphName[i]);
                }
                std::string text;
                for (const std::string& graph : graphs) text += " " + graph;
                if (!text.empty()) found.insert(text.substr(1));
            }
            return found == devices;
        });
    }
};

TEST_F(ReservedDevicesTest, GraphsRunOnTheirReservedDevicesAndNowhereElse) {
    startReserved(5, "1");
    const GraphWish wishes[] = {wishFor("of-one", "one"), wishFor("of-two", "two"),
                                wishFor("of-camera", "", "camera"), wishFor("shared-1")};
    for (int i = 0; i < 200; ++i) {  // each hangs up without reading the answer
        EXPECT_TRUE(User(path()).sendCreateGraph(wishes[i % 4]));
    }
    std::vector<User> users;
    for (const GraphWish& wish : wishes) {
        User& user = users.emplace_back(path());
        ASSERT_TRUE(eventually([&] { return user.create(wish) == KELM_OK; })) << wish.name;
    }
    const auto inferAll = [&] {
        for (User& user : users) EXPECT_EQ(user.infer(50), 50);
    };
    inferAll();
    ASSERT_EQ(users[3].create(wishFor("shared-2")), KELM_OK);
    inferAll();
    EXPECT_TRUE(liesSo({"of-one", "of-two", "of-two", "of-camera", "shared-1 shared-2"}));
    const auto status = users[0].queryStatus(2);
    EXPECT_EQ(status.deviceNum, 5);
    for (int i = 0; i < 5; ++i) EXPECT_GT(status.deviceFps[i], 0.0F) << status.deviceGraphName[i];

    const auto refuse = [&](const GraphWish& wish) {
        EXPECT_EQ(User(path()).create(wish), KELM_ERROR_NO_DEVICE_AVAILABLE) << wish.name;
    };
    refuse(wishFor("another of one", "one"));
    refuse(wishFor("another camera", "", "another"));
    ASSERT_EQ(users[0].destroy(), KELM_OK);  // from here on there is a device to be had
    refuse(wishFor("another of two", "two"));
    refuse(wishFor("of none", "none"));
    EXPECT_EQ(users[0].create(wishFor("next of one", "one")), KELM_OK);
    users[2] = User(path());
    const GraphWish next = wishFor("next", "", "another");
    EXPECT_TRUE(eventually([&] { return users[2].create(next) == KELM_OK; }));
    inferAll();
    EXPECT_TRUE(liesSo({"next of one", "of-two", "of-two", "next", "shared-1 shared-2"}));
}

TEST_F(ReservedDevicesTest, GraphWithoutClaimTakesNoReservedDevice) {
    startReserved(3, "0");
    User user(path());
    EXPECT_EQ(user.create(wishFor("shared")), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_EQ(user.create(wishFor("stream", "", "camera")), KELM_ERROR_INVALID_PARAM);
    EXPECT_EQ(user.create(wishFor("both", "one", "camera")), KELM_OK);  // the tag counts
    EXPECT_EQ(user.infer(3), 3);
}

}  // namespace
}  // namespace kelm
