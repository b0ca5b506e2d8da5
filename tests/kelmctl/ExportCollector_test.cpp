#include "tools/kelmctl/export/ExportCollector.h"

#include "tools/kelmctl/export/Metrics.h"

namespace kelm::ctl {
namespace {

using Time = ExportCollector::Time;
using std::chrono::hours;
using std::chrono::seconds;

// A service with these devices, each of which holds a graph, or none for "".
struct Held {
    uint32_t id;
    std::string graph;
    std::string loadTime = "10:00:00";
};

StatusLook makeLook(pid_t pid, const std::vector<Held>& devices, uint64_t inferences = 0) {
    StatusLook look;
    look.servicePid = pid;
    look.snapshot.emplace();
    std::set<std::string> graphs;
    for (const Held& held : devices) {
        look.status.devices.push_back(
            {"D" + std::to_string(held.id), 0.0f, held.graph, 0.0f, held.id, 0});
        client::DeviceSnapshot& device = look.snapshot->devices.emplace_back();
        device.id = held.id;
        if (!held.graph.empty()) device.current.push_back({held.graph, held.loadTime, 0, 0.0f});
        if (held.graph.empty() || !graphs.insert(held.graph).second) continue;
        look.status.graphs.push_back({held.graph, 0.0f, 0.0f});
        client::GraphSnapshot& graph = look.snapshot->graphs.emplace_back();
        graph.id = 1;
        graph.name = held.graph;
        graph.inferences = inferences;
    }
    look.status.deviceCount = static_cast<uint32_t>(devices.size());
    look.status.graphCount = 1;  // listed or not
    return look;
}

std::string textOf(const ExportSnapshot& snapshot) {
    return metricsText(MetricsInput(snapshot, {}, {}));
}

// The samples; each series is there once, or Prometheus would refuse them all.
std::map<std::string, std::string> samplesOf(const std::string& text) {
    std::map<std::string, std::string> samples;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('#')) continue;
        const size_t blank = line.rfind(' ');
        EXPECT_TRUE(samples.emplace(line.substr(0, blank), line.substr(blank + 1)).second) << line;
    }
    return samples;
}

TEST(ExportCollectorTest, CountsMovesReplugsAndInferencesAcrossServices) {
    const struct {
        const char* what;
        std::optional<StatusLook> look;  // none: no service answers
        const char* up;                  // of device 2; empty: not told
        const char* replugs;
        const char* in;
        const char* out;
        const char* inferences;
    } rows[] = {
        {"what was before is not counted", makeLook(7, {{1, "g"}, {2, ""}}, 100), "1", "0", "0",
         "0", "0"},
        {"a move", makeLook(7, {{1, ""}, {2, "g"}}, 105), "1", "0", "1", "1", "5"},
        {"the same", makeLook(7, {{1, ""}, {2, "g"}}, 105), "1", "0", "1", "1", "5"},
        {"loaded again", makeLook(7, {{1, ""}, {2, "g", "10:00:09"}}, 105), "1", "0", "2", "2",
         "5"},
        {"device lost", makeLook(7, {{1, "g"}}, 106), "0", "0", "3", "3", "6"},
        {"it is back", makeLook(7, {{1, "g"}, {2, ""}}, 106), "1", "1", "3", "3", "6"},
        {"a look that fails", std::nullopt, "", "", "3", "3", "6"},
        {"the same service", makeLook(7, {{1, "g"}}, 107), "0", "1", "3", "3", "7"},
        {"another one, which still looks for it", makeLook(8, {{1, "g"}}, 2), "0", "1", "4", "3",
         "9"},
        {"and has found it", makeLook(8, {{1, "g"}, {2, ""}}, 2), "1", "1", "4", "3", "9"},
        {"one whose process is not seen", makeLook(0, {{1, "g"}}, 3), "0", "1", "5", "3", "12"},
        {"a look that fails", std::nullopt, "", "", "5", "3", "12"},
        {"its counts go on", makeLook(0, {{1, "g"}}, 5), "0", "1", "5", "3", "14"},
        {"a look that fails", std::nullopt, "", "", "5", "3", "14"},
        {"another one", makeLook(0, {{1, "g", "11"}}, 4), "0", "1", "6", "4", "18"},
        {"no room for the graph", makeLook(0, {{1, ""}}), "0", "1", "6", "5", "18"},
        {"some again", makeLook(0, {{1, "g", "11"}}, 6), "0", "1", "7", "5", "20"},
    };
    ExportCollector collector;
    Time now{};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        now += seconds(1);
        auto samples = samplesOf(
            textOf(row.look ? collector.addLook(*row.look, now) : collector.addFailure("none")));
        EXPECT_EQ(samples["kelm_device_up{device=\"D2\"}"], row.up);
        EXPECT_EQ(samples["kelm_device_replugs_total{device=\"D2\"}"], row.replugs);
        EXPECT_EQ(samples["kelm_graph_moves_in_total{graph=\"g\"}"], row.in);
        EXPECT_EQ(samples["kelm_graph_moves_out_total{graph=\"g\"}"], row.out);
        EXPECT_EQ(samples["kelm_graph_inferences_total{graph=\"g\"}"], row.inferences);
    }
    const auto later = collector.addLook(makeLook(8, {{1, "g"}}), now += hours(25));
    EXPECT_THAT(later.devices, testing::SizeIs(1)) << "a lost device is forgotten";
}

TEST(ExportCollectorTest, NamesOfClientsNeitherGrowItNorBreakTheText) {
    const std::vector<std::string> odd{"a\"b\\c\nd", "a\"b\\c\rd", "\xff\xfe{}", "(others)",
                                       "\u00e9 = 1", "",           "twice",      "twice"};
    ExportCollector collector;
    Time now{};
    size_t most = 0;
    std::string text;
    for (int round = 0; round < 50; ++round) {
        StatusLook look = makeLook(7, {});
        for (const std::string& name : odd) look.status.graphs.push_back({name, 1.0f, 1.0f});
        for (int i = 0; i < 50; ++i) {
            const std::string name = "new" + std::to_string(round) + "-" + std::to_string(i);
            look.status.graphs.push_back({name, 1.0f, 1.0f});
            look.snapshot->clients.push_back({1, name, 2, 0, 0, 0});
            look.status.clients.push_back({name, 1.0f});
        }
        look.status.clientCount = 50;
        text = textOf(collector.addLook(look, now += seconds(1)));
        most = std::max(most, samplesOf(text).size());
    }
    EXPECT_LT(most, 130 * 10);
    auto samples = samplesOf(text);
    const std::string rate = "kelm_graph_inferences_per_second";
    EXPECT_EQ(samples[rate + R"({graph="a\"b\\c)" + "\ufffdd\"}"], "2") << text;
    EXPECT_EQ(samples[rate + "{graph=\"\ufffd\ufffd{}\"}"], "1");
    EXPECT_EQ(samples[rate + "{graph=\"twice\"}"], "2");
    EXPECT_EQ(samples[rate + "{graph=\"(others)\"}"], "52");

    StatusLook quiet = makeLook(7, {});
    quiet.status.graphs.push_back({"mine", 1.0f, 1.0f});
    samples = samplesOf(textOf(collector.addLook(quiet, now += hours(2))));
    EXPECT_EQ(samples[rate + "{graph=\"mine\"}"], "1") << "places are free again";
}

TEST(MetricsTest, ThePageHasTheTable) {
    std::ifstream file(KELM_SOURCE_DIR "/docs/exporting.md");
    std::vector<std::string> written;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("| `kelm_") || line.starts_with("| `process_"))
            written.push_back(line);
    }
    std::vector<std::string> expected;
    for (const Metric& metric : metrics()) {
        expected.push_back(std::string("| `") + metric.name + "` | " + metric.type + " | " +
                           metric.help + " |");
    }
    EXPECT_EQ(written, expected);
}

}  // namespace
}  // namespace kelm::ctl
