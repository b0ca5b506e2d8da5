#include "tools/kelmctl/Explanation.h"

#include <nlohmann/json.hpp>

#include "tools/kelmctl/EventsCommand.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {
namespace {

TEST(ExplanationTest, SentencesFollowTheLastPlacementAndThePresent) {
    const struct {
        const char* rule;
        std::pair<uint32_t, uint64_t> figures;  // devices, and tasks that wait
        const char* event;                      // of graph 1, or of another one
        std::vector<const char*> words;
    } rows[] = {
        {"nothing is known",
         {1, 0},
         R"({"kind":"client","graph_id":1})",
         {"It is on Fake0 (since 10:00:00).", "kept none"}},
        {"another graph's move is not its own",
         {1, 0},
         R"({"kind":"placement","graph_id":2,"action":"loaded"})",
         {"kept none"}},
        {"a move has its reason",
         {1, 3},
         R"({"kind":"placement","graph_id":1,"action":"moved","reason":"reset","from":"A",
            "device":"B","asked":2.5})",
         {"asked for 2.5 devices", "has 1", "DS.Test moved it from A to B at", "device was reset",
          "3 tasks of it wait for its device", "more devices"}},
        {"a refusal tells what it lacks",
         {0, 1},
         R"({"kind":"placement","graph_id":1,"action":"refused","reason":"demand","lacks":"memory"})",
         {"on no device", "gave it no device", "with it 1 task.", "larger devices"}},
        {"members of other types are absent",
         {0, 0},
         R"({"kind":"placement","graph_id":1,"action":7,"code":"x","asked":[],"lacks":"new"})",
         {"on no device", "It has no tasks"}},
        {"a device's error is told by its name",
         {0, 0},
         R"({"kind":"placement","graph_id":1,"action":"refused","device":"C","code":-121})",
         {"could not load it onto C", "KELM_ERROR_GRAPH_VERIFY_FAILED"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule);
        StatusLook look;
        look.status.deviceScheduler = "DS.Test";
        look.status.devices.emplace_back().name = "Fake0";
        look.snapshot.emplace();
        look.snapshot->devices.emplace_back().current.push_back({"/a/net", "10:00:00", 0, 0.0f});
        client::GraphSnapshot& graph = look.snapshot->graphs.emplace_back();
        graph.id = 1;
        graph.name = "/a/net";
        graph.runningDevices = row.figures.first;
        graph.waitingTasks = row.figures.second;
        const Explanation explanation = explain(look, {0, {}, {parseEvent(row.event)}}, "net");
        const std::string text = explanationText(explanation, false);
        for (const char* words : row.words) EXPECT_THAT(text, HasSubstr(words));
        EXPECT_EQ(nlohmann::json::parse(explanationJson(explanation))["got"], row.figures.first);
        EXPECT_THROW((void)explain(look, {}, "et"), std::runtime_error);
        client::GraphSnapshot twin;
        twin.id = 2;
        twin.name = "/b/net";
        look.snapshot->graphs.push_back(twin);
        EXPECT_THROW((void)explain(look, {}, "net"), std::runtime_error);
        EXPECT_EQ(explain(look, {}, "2").name, "/b/net");
    }
}

TEST(EventsCommandTest, SinceTakesNumbersAgesAndTimes) {
    const auto now = std::chrono::system_clock::from_time_t(1800000000);
    EXPECT_EQ(parseSince("17", now).sequence, 17U);
    EXPECT_EQ(parseSince("90m", now).time, now - std::chrono::minutes(90));
    EXPECT_LT(parseSince("2026-01-31T21:30", now).time, now);
    EXPECT_LE(now - parseSince("00:00", now).time, std::chrono::hours(25));
    for (const char* text :
         {"x", "-1", "5w", "99999999999999999999", "99999999d", "25:00", "10:00x"}) {
        EXPECT_THROW((void)parseSince(text, now), UsageError) << text;
    }
}

}  // namespace
}  // namespace kelm::ctl
