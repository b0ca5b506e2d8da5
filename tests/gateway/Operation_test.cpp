#include <nlohmann/json.hpp>

#include "tests/gateway/GatewayFixture.h"

namespace kelm::gateway {
namespace {

TEST(AgentLineTest, TellsWhatTheGatewayCanTake) {
    const struct {
        AgentState state;
        const char* line;
    } rows[] = {
        {{.devices = 3, .window = 9}, "up ready 30%\n"},
        {{.devices = 3, .window = 9, .waiting = 27}, "up ready 15%\n"},
        {{.devices = 1, .window = 3, .waiting = 3000}, "up ready 1%\n"},  // never none
        {{.devices = 1, .window = 0, .waiting = 3}, "up ready 5%\n"},
        {{.whyNot = "no device", .devices = 3}, "down #no device\n"},
        {{.whyNot = "a\nup b\xc3\xa9"}, "down #a?up b??\n"},
        {{.isDraining = true, .devices = 3, .window = 9}, "drain\n"},
        {{.isDraining = true, .whyNot = "no device"}, "drain\n"},
    };
    for (const auto& row : rows) EXPECT_EQ(agentLine(row.state), row.line);
}

using OperationTest = GatewayTest;

TEST_F(OperationTest, ModelIsReadyWithADeviceOfItsSubclass) {
    describeModel("m");
    describeModel("other", R"(,"subclass":7)");
    serve();
    RawPeer peer = connect();
    const auto ask = [&](const std::string& model) {
        return peer.send("GET /v2/models/" + model + "/ready HTTP/1.1\r\nHost: h\r\n\r\n").answer();
    };
    ASSERT_TRUE(eventually([&] { return gateway->models().all().size() == 2; }));
    EXPECT_THAT(ask("m"), StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(ask("other"), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(peer.send(post(kOk, "", "other")).answer(), HasSubstr("no device of subclass 7"));
    EXPECT_TRUE(gateway->isReady());
    std::filesystem::remove(dir.path() + "/m.json");
    EXPECT_TRUE(eventually([&] { return !gateway->isReady(); }));
}

TEST_F(OperationTest, WhatWaitsIsTakenBackWhenNoDeviceIsLeft) {
    describeModel("m");
    serve();
    engine.isHolding = true;
    RawPeer peer = connect(post(kOk));
    ASSERT_TRUE(eventually([&] { return engine.held() == 1; }));
    engine.isDown = true;
    EXPECT_THAT(peer.answer(), AllOf(StartsWith("HTTP/1.1 503"),
                                     HasSubstr("there is no device; the task was ta")));
}

TEST_F(OperationTest, TextsOfAllRequestsShareTheirMemory) {
    describeModel("m");
    serve({}, nullptr, {.textMemory = 1000});
    const std::string body = kOk.substr(0, kOk.size() - 1) + std::string(600, ' ') + "}";
    const std::string request = post(body);
    RawPeer slow = connect(request.substr(0, request.size() - 9)), next = connect();
    ASSERT_TRUE(eventually([&] { return gateway->textMemory().held() > 0; }));
    EXPECT_THAT(next.send(post(body)).answer(), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(slow.send(request.substr(request.size() - 9)).answer(), StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(next.send(post(body)).answer(), StartsWith("HTTP/1.1 200"));
}

TEST_F(OperationTest, RequestsAreCountedAndLogged) {
    describeModel("m");
    const std::string log = dir.path() + "/access", moved = log + ".1";
    serve({}, nullptr, {.accessLog = log});
    RawPeer peer = connect();
    const auto send = [&](const std::string& headers, const std::string& model) {
        return peer.send(post(kOk, headers, model)).answer();
    };
    const auto lines = [](const std::string& file) {
        std::ifstream stream(file);
        std::vector<nlohmann::json> all;
        for (std::string line; std::getline(stream, line);) {
            all.push_back(nlohmann::json::parse(line));
        }
        return all;
    };
    EXPECT_THAT(send("X-Request-Id: mine\r\n", "m"), HasSubstr("X-Request-Id: mine\r\n"));
    EXPECT_THAT(send("X-Request-Id: a\tb\r\n", "m"), Not(HasSubstr("a\tb")));
    for (int i = 0; i < 300; ++i) (void)send("", "x" + std::to_string(i) + "%0a%22%ff");
    ASSERT_TRUE(eventually([&] { return lines(log).size() == 302; }));
    const auto all = lines(log);
    EXPECT_EQ(all[0]["request_id"], "mine");
    EXPECT_EQ(all[0]["code"], 200);
    EXPECT_EQ(all[0]["bytes_in"], kOk.size());
    EXPECT_EQ(all[2]["code"], 404);
    EXPECT_EQ(all[2]["model"], "x0\n\"\xef\xbf\xbd");
    EXPECT_FALSE(all[2].contains("version"));

    const std::string text = gateway->metricsText();
    EXPECT_THAT(text, HasSubstr(R"(requests_total{model="m",protocol="rest",code="200"} 2)"));
    EXPECT_THAT(text,
                HasSubstr(R"-(requests_total{model="(unknown)",protocol="rest",code="404"} 300)-"));
    EXPECT_THAT(text, HasSubstr(R"(request_seconds_bucket{model="m",le="+Inf"} 2)"));
    EXPECT_THAT(text, HasSubstr("connections{protocol=\"rest\"} 1\n"));
    EXPECT_THAT(text, Not(HasSubstr("x0")));

    std::filesystem::rename(log, moved);
    gateway->reopenLog();
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(log); }));
    (void)send("", "m");
    EXPECT_TRUE(eventually([&] { return lines(log).size() == 1; }));
    EXPECT_EQ(lines(moved).size(), 302U);
}

}  // namespace
}  // namespace kelm::gateway
