#include <future>

#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"

namespace kelm {
namespace {

// A client with one graph after the other; the name of each is its blob too.
class User : public WireClient {
 public:
    User(const std::string& path, const std::string& name) : WireClient(path, name) {}

    static GraphWish wish(const std::string& name, const std::string& tag = "",
                          const std::string& stream = "") {
        return {name, name, tag, stream};
    }
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

// Does something for all users at once.
template <class Action>
void atOnce(std::vector<User>& users, Action action) {
    std::vector<std::future<void>> ends;
    for (size_t i = 0; i < users.size(); ++i) {
        ends.push_back(std::async(std::launch::async, [&, i] { action(users[i], i); }));
    }
    for (auto& end : ends) end.get();
}

class ReservedDevicesTest : public SystemFixture {
 protected:
    static constexpr int kTasks = 50;

    // Devices for the tags "one" and "two", as many as they say, and for a stream.
    void startReserved(int devices, const std::string& streams) {
        start(ServiceConfig::fakeDevices(devices, 2) + R"(, "scheduler_config": [{"subclass": 0,
            "graph_tag_map": {"one": 1, "two": 2}, "stream_device_number": )" +
              streams + "}]");
    }

    // Per device the names of its graphs, and the tasks that the devices have done for each.
    struct Placements {
        std::multiset<std::string> devices;
        std::map<std::string, uint64_t> inferences;
    };
    Placements placements() const {
        Placements result;
        const auto package = readPackage();
        for (const InfoDeviceRow& row : package->devices) {
            std::set<std::string> graphs;
            for (int i = 0; i < row.currentGraphCount; ++i) {
                graphs.insert(row.currentGraphName[i]);
                result.inferences[row.currentGraphName[i]] += row.currentInferenceCount[i];
            }
            std::string text;
            for (const std::string& graph : graphs) text += (text.empty() ? "" : " ") + graph;
            if (!text.empty()) result.devices.insert(text);
        }
        return result;
    }
    bool liesSo(const std::multiset<std::string>& devices) const {
        return eventually([&] { return placements().devices == devices; });
    }
};

TEST_F(ReservedDevicesTest, GraphsRunOnTheirReservedDevicesAndNowhereElse) {
    startReserved(5, "1");
    const GraphWish graphs[] = {User::wish("of-one", "one"), User::wish("of-two", "two"),
                                User::wish("of-camera", "", "camera"), User::wish("shared-1"),
                                User::wish("shared-2")};
    std::vector<User> users;
    for (const char* name : {"first", "second", "third", "fourth"}) {
        users.emplace_back(path(), name);
    }
    atOnce(users, [&](User& user, size_t i) { EXPECT_EQ(user.create(graphs[i]), KELM_OK) << i; });
    const auto inferAll = [&] {
        atOnce(users, [](User& user, size_t i) { EXPECT_EQ(user.infer(kTasks), kTasks) << i; });
    };
    inferAll();
    ASSERT_EQ(users[3].create(graphs[4]), KELM_OK);
    inferAll();
    EXPECT_TRUE(liesSo({"of-one", "of-two", "of-two", "of-camera", "shared-1 shared-2"}));
    EXPECT_EQ(placements().inferences, (std::map<std::string, uint64_t>{{"of-one", 2 * kTasks},
                                                                        {"of-two", 2 * kTasks},
                                                                        {"of-camera", 2 * kTasks},
                                                                        {"shared-1", kTasks},
                                                                        {"shared-2", kTasks}}));
    const auto status = users[0].queryStatus(2);
    EXPECT_EQ(status.deviceNum, 5);
    for (int i = 0; i < 5; ++i) EXPECT_GT(status.deviceFps[i], 0.0F) << status.deviceGraphName[i];

    const auto refuse = [&](const GraphWish& wish, const std::string& words) {
        SCOPED_TRACE(words);
        EXPECT_EQ(User(path(), "late").create(wish), KELM_ERROR_NO_DEVICE_AVAILABLE);
        EXPECT_TRUE(service().waitLog(words));
    };
    refuse(User::wish("another of one", "one"), "");
    refuse(User::wish("another camera", "", "another"), "");
    ASSERT_EQ(users[0].destroy(), KELM_OK);  // from here on there is a device to be had
    refuse(User::wish("another of two", "two"), "Error: no headcount for graph tag 'two'");
    refuse(User::wish("of none", "none"), "Error: invalid graph tag 'none'");
    refuse(User::wish("of none", "none"), "Error: no headcount for graph tag 'none'");
    EXPECT_EQ(users[0].create(User::wish("next of one", "one")), KELM_OK);
    users.erase(users.begin() + 2);  // it hangs up
    const GraphWish another = User::wish("next", "", "another");
    User next(path(), "next");
    EXPECT_TRUE(eventually([&] { return next.create(another) == KELM_OK; }));
    inferAll();
    EXPECT_TRUE(liesSo({"next of one", "of-two", "of-two", "next", "shared-1 shared-2"}));
}

TEST_F(ReservedDevicesTest, ClientsThatVanishGiveTheirDevicesBack) {
    startReserved(5, "1");
    const GraphWish wishes[] = {User::wish("a", "one"),        User::wish("b", "two"),
                                User::wish("c", "", "camera"), User::wish("d"),
                                User::wish("e", "one"),        User::wish("f", "two"),
                                User::wish("g", "", "other"),  User::wish("h")};
    for (int i = 0; i < 30; ++i) {
        std::vector<std::future<void>> ends;
        for (const GraphWish& wish : wishes) {
            // Each asks for a graph and hangs up without reading the answer.
            ends.push_back(std::async(std::launch::async, [this, &wish] {
                EXPECT_TRUE(User(path(), "vanishing").sendCreateGraph(wish));
            }));
        }
        for (auto& end : ends) end.get();
    }
    std::vector<User> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back(path(), "late");
        ASSERT_TRUE(eventually([&] { return users.back().create(wishes[i]) == KELM_OK; })) << i;
        EXPECT_EQ(users.back().infer(5), 5);
    }
    EXPECT_TRUE(liesSo({"a", "b", "b", "c", "d"}));
}

TEST_F(ReservedDevicesTest, GraphWithoutClaimTakesNoReservedDevice) {
    startReserved(3, "0");
    User user(path(), "user");
    EXPECT_EQ(user.create(User::wish("shared")), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_TRUE(service().waitLog("SqueezeDeviceNumber=0"));
    EXPECT_EQ(user.create(User::wish("stream", "", "camera")), KELM_ERROR_INVALID_PARAM);
    EXPECT_TRUE(service().waitLog("No device is set for stream scheduler"));
    EXPECT_EQ(user.create(User::wish("both", "one", "camera")), KELM_OK);  // the tag counts
    EXPECT_EQ(user.infer(3), 3);
}

}  // namespace
}  // namespace kelm
