#include <future>

#include "client/Client.h"
#include "system/LogTable.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

using client::Client;

struct GraphWish {
    std::string name;
    std::string tag{};
    std::string stream{};
};

// A client with one graph after the other, each with a blob of its own.
class User {
 public:
    User(const std::string& path, const std::string& name) {
        auto client = Client::connect(path);
        if (!client) throw std::runtime_error(client.error().text());
        m_client = std::move(client.value());
        if (const auto error = m_client->registerClient(name)) {
            throw std::runtime_error(error.text());
        }
    }

    // The code of the answer.
    int32_t create(const GraphWish& wish) {
        client::GraphOptions options;
        options.name = wish.name;
        options.tag = wish.tag;
        options.streamId = wish.stream;
        const auto graph = m_client->createGraph(std::as_bytes(std::span(wish.name)), options);
        if (graph) m_graph = graph.value().id;
        return graph ? KELM_OK : graph.error().code();
    }
    int32_t destroy() { return m_client->destroyGraph(m_graph).code(); }

    // How many of so many tasks on the last graph, all under way at once, come to a good end.
    int infer(int tasks) {
        client::InferRequest request;
        request.graphId = m_graph;
        std::vector<std::future<client::InferResult>> results;
        for (int i = 0; i < tasks; ++i) results.push_back(m_client->inferAsync(request));
        return static_cast<int>(std::count_if(results.begin(), results.end(),
                                              [](auto& result) { return !result.get().error; }));
    }

    client::ServiceStatus status() {
        const auto status = m_client->queryStatus();
        return status ? status.value() : client::ServiceStatus();
    }

 private:
    std::unique_ptr<Client> m_client;
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
        startWith(fakeDevices(devices, 2) + R"(, "scheduler_config": [{"subclass": 0,
            "graph_tag_map": {"one": 1, "two": 2}, "stream_device_number": )" +
                  streams + R"(}], "debug_settings": {"info_printer": {
                  "print_interval": 1000, "device_snapshot_mode": "full"}})");
    }

    LogTable devices() { return LogTable::last(service().log(), "DeviceSnapshot(subclass=0):"); }

    // Per device of the table: its scheduler, what it is reserved for, and its graphs.
    using Placements = std::multiset<std::string>;
    static Placements placements(const LogTable& table) {
        Placements result;
        for (size_t i = 0; i < table.columns(); ++i) {
            std::multiset<std::string> graphs{table.cell("curGraph", i, 0),
                                              table.cell("curGraph", i, 1)};
            std::string text = table.cell("scheduler", i) + "(" + table.cell("comment", i) + ")";
            for (const std::string& graph : graphs) text += graph.empty() ? "" : " " + graph;
            result.insert(text);
        }
        return result;
    }
    // Tasks that the devices of a graph say they have done for it.
    static int inferences(const LogTable& table, const std::string& graph) {
        int sum = 0;
        for (size_t i = 0; i < table.columns(); ++i) {
            for (const size_t slot : {0U, 1U}) {
                if (table.cell("curGraph", i, slot) != graph) continue;
                sum += std::stoi(table.cell("inference", i, 2 * slot));
            }
        }
        return sum;
    }
};

TEST_F(ReservedDevicesTest, GraphRunsElsewhereThanOnItsReservedDevices) {
    startReserved(5, "1");
    const GraphWish graphs[] = {{"of-one", "one"},
                                {"of-two", "two"},
                                {"of-camera", "", "camera"},
                                {"shared-1"},
                                {"shared-2"}};
    std::vector<User> users;
    for (const char* name : {"first", "second", "third", "fourth"}) {
        users.emplace_back(path(), name);
    }
    atOnce(users, [&](User& user, size_t i) { EXPECT_EQ(user.create(graphs[i]), KELM_OK) << i; });
    atOnce(users, [](User& user, size_t i) { EXPECT_EQ(user.infer(kTasks), kTasks) << i; });
    ASSERT_EQ(users[3].create(graphs[4]), KELM_OK);
    atOnce(users, [](User& user, size_t i) { EXPECT_EQ(user.infer(kTasks), kTasks) << i; });

    // The last table may have been printed before the last task.
    LogTable table;
    const std::pair<const char*, int> counts[] = {{"of-one", 2 * kTasks},
                                                  {"of-two", 2 * kTasks},
                                                  {"of-camera", 2 * kTasks},
                                                  {"shared-1", kTasks},
                                                  {"shared-2", kTasks}};
    EXPECT_TRUE(eventually([&] {
        table = devices();
        return std::all_of(std::begin(counts), std::end(counts), [&](const auto& count) {
            return inferences(table, count.first) == count.second;
        });
    })) << lastLines();
    EXPECT_EQ(placements(table),
              (Placements{"tag(one) of-one", "tag(two) of-two", "tag(two) of-two",
                          "stream(camera) of-camera", "squeeze() shared-1 shared-2"}));
    const client::ServiceStatus status = users[0].status();
    ASSERT_EQ(status.devices.size(), table.columns());
    for (size_t i = 0; i < table.columns(); ++i) {
        EXPECT_EQ(status.devices[i].name, table.cell("device", i));
        EXPECT_EQ(status.devices[i].graph, table.cell("curGraph", i, 0));
        EXPECT_EQ(table.cell("deviceId", i).find(std::to_string(status.devices[i].id) + "("), 0U);
        EXPECT_GT(status.devices[i].fps, 0.0f) << status.devices[i].graph;
    }

    const auto refuse = [&](const GraphWish& wish, const std::string& words) {
        SCOPED_TRACE(words);
        EXPECT_EQ(User(path(), "late").create(wish), KELM_ERROR_NO_DEVICE_AVAILABLE);
        EXPECT_TRUE(service().waitLog(words));
    };
    refuse({"another of one", "one"}, "");
    refuse({"another camera", "", "another"}, "");
    ASSERT_EQ(users[0].destroy(), KELM_OK);  // from here on there is a device to be had
    refuse({"another of two", "two"}, "Error: no headcount for graph tag 'two'");
    refuse({"of none", "none"}, "Error: invalid graph tag 'none'");
    refuse({"of none", "none"}, "Error: no headcount for graph tag 'none'");
    EXPECT_EQ(users[0].create({"next of one", "one"}), KELM_OK);
    users.erase(users.begin() + 2);  // it hangs up
    User next(path(), "next");
    EXPECT_TRUE(eventually([&] { return next.create({"next", "", "another"}) == KELM_OK; }));
    atOnce(users, [](User& user, size_t i) { EXPECT_EQ(user.infer(kTasks), kTasks) << i; });
    const Placements expected{"tag(one) next of one", "tag(two) of-two", "tag(two) of-two",
                              "stream(another) next", "squeeze() shared-1 shared-2"};
    EXPECT_TRUE(eventually([&] { return placements(devices()) == expected; })) << lastLines();
}

TEST_F(ReservedDevicesTest, DevicesAreLostToATagThatIsTakenAndGivenBack) {
    constexpr int kTurns = 20;
    startReserved(4, "1");
    User user(path(), "holder");
    User late(path(), "late");
    for (int i = 0; i < kTurns; ++i) {
        const std::string turn = std::to_string(i);
        ASSERT_EQ(user.create({"tag " + turn, "two"}), KELM_OK) << turn;
        EXPECT_EQ(late.create({"late " + turn, "two"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
        EXPECT_EQ(user.infer(2), 2);
        const auto rows = user.status().devices;
        EXPECT_EQ(std::count_if(rows.begin(), rows.end(),
                                [&](const auto& row) { return row.graph == "tag " + turn; }),
                  2);
        ASSERT_EQ(user.destroy(), KELM_OK);
        ASSERT_EQ(user.create({"stream " + turn, "", "camera"}), KELM_OK) << turn;
        EXPECT_EQ(late.create({"late " + turn, "", "late"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
        ASSERT_EQ(user.destroy(), KELM_OK);
    }
}

// Asks for a graph and hangs up without reading the answer.
void askAndVanish(const std::string& path, const GraphWish& wish) {
    RawClient client(path);
    auto request = RawClient::request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
    request.clientId = client.registerClient("vanishing");
    wish.name.copy(request.graphName, sizeof(request.graphName) - 1);
    wish.tag.copy(request.graphTag, sizeof(request.graphTag) - 1);
    wish.stream.copy(request.streamId, sizeof(request.streamId) - 1);
    request.head.base.dataNum = 1;
    request.head.base.dataSize[0] = wish.name.size();
    EXPECT_TRUE(client.send(request, {}, wish.name));
}

TEST_F(ReservedDevicesTest, DevicesAreLostToClientsThatVanish) {
    constexpr int kRounds = 60;
    startReserved(5, "1");
    const GraphWish wishes[] = {{"a", "one"}, {"b", "two"}, {"c", "", "camera"}, {"d"},
                                {"e", "one"}, {"f", "two"}, {"g", "", "other"},  {"h"}};
    for (int i = 0; i < kRounds; ++i) {
        std::vector<std::future<void>> ends;
        for (const GraphWish& wish : wishes) {
            ends.push_back(std::async(std::launch::async, askAndVanish, path(), wish));
        }
        for (auto& end : ends) end.get();
    }
    std::vector<User> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back(path(), "late");
        const GraphWish& wish = wishes[i];
        ASSERT_TRUE(eventually([&] { return users.back().create(wish) == KELM_OK; })) << i;
        EXPECT_EQ(users.back().infer(5), 5);
    }
    const Placements expected{"tag(one) a", "tag(two) b", "tag(two) b", "stream(camera) c",
                              "squeeze() d"};
    EXPECT_TRUE(eventually([&] { return placements(devices()) == expected; })) << lastLines();
}

TEST_F(ReservedDevicesTest, GraphWithoutClaimTakesAReservedDevice) {
    startReserved(3, "0");
    User user(path(), "user");
    EXPECT_EQ(user.create({"shared"}), KELM_ERROR_NO_DEVICE_AVAILABLE);
    EXPECT_TRUE(service().waitLog("SqueezeDeviceNumber=0"));
    EXPECT_EQ(user.create({"stream", "", "camera"}), KELM_ERROR_INVALID_PARAM);
    EXPECT_TRUE(service().waitLog("No device is set for stream scheduler"));
    EXPECT_EQ(user.create({"both", "one", "camera"}), KELM_OK);  // the tag counts
    EXPECT_EQ(user.infer(3), 3);
}

}  // namespace
}  // namespace kelm
