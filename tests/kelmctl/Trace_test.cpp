#include <nlohmann/json.hpp>

#include "tools/kelmctl/TraceCommand.h"

namespace kelm::ctl {
namespace {

using Json = nlohmann::json;

constexpr const char* kFramesHeader = "name,start_tsc.RDTSC,end_tsc\n";
constexpr const char* kTasksHeader = "name,start_tsc.RDTSC,end_tsc,pid,tid\n";

struct Span {
    uint64_t start;
    uint64_t end;
    std::string name;
    uint32_t tid;
    auto operator<=>(const Span& other) const = default;
};

class TraceTest : public ::testing::Test {
 protected:
    // A tick is a nanosecond.
    int run(const std::string& frames, const std::string& tasks, const std::string& threads = "",
            const std::string& events = "") {
        TraceOptions options;
        options.frames = m_directory.write("frames.csv", frames);
        options.tasks = m_directory.write("tasks.csv", tasks);
        options.output = m_directory.path() + "/out.json";
        options.tscMhz = 1000.0;
        options.threads = m_directory.write("thread.info", threads);
        if (!events.empty()) options.events = m_directory.write("events", events);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = runTrace(options);
        m_out = testing::internal::GetCapturedStdout();
        m_err = testing::internal::GetCapturedStderr();
        m_events = Json::parse(std::ifstream(options.output))["traceEvents"];
        return status;
    }

    // The spans of the file. Those of an id must follow one another, those of a thread's own track
    // must nest.
    std::multiset<Span> spans() {
        const auto nanos = [](const Json& micros) {
            return static_cast<uint64_t>(std::llround(micros.get<double>() * 1000.0));
        };
        std::multiset<Span> all;
        std::map<std::string, Span> open;
        // Starts and complements of the ends: of spans with one start the longest stands first.
        std::map<std::string, std::multiset<std::pair<uint64_t, uint64_t>>> lanes;
        for (const Json& event : m_events) {
            const std::string phase = event["ph"];
            if (phase == "M") continue;
            Span span{nanos(event["ts"]), 0, event["name"], event["tid"]};
            std::string lane = "thread " + std::to_string(span.tid);
            if (phase == "X") {
                span.end = span.start + nanos(event["dur"]);
            } else {
                lane = event["cat"].dump() + event["id"].dump();
                const auto [begin, isNew] = open.emplace(lane, span);
                EXPECT_EQ(phase, isNew ? "b" : "e");
                if (isNew) continue;
                EXPECT_EQ(begin->second.name, span.name);
                span.end = std::exchange(span.start, begin->second.start);
                open.erase(begin);
            }
            lanes[lane].emplace(span.start, ~span.end);
            all.insert(span);
        }
        EXPECT_TRUE(open.empty());
        for (const auto& [name, lane] : lanes) {
            std::vector<uint64_t> around;  // the ends of spans that have not ended
            for (const auto& [start, end] : lane) {
                while (!around.empty() && around.back() <= start) around.pop_back();
                EXPECT_TRUE(around.empty() || (name[0] == 't' && ~end <= around.back())) << name;
                around.push_back(~end);
            }
        }
        m_lanes = lanes.size();
        return all;
    }

    TempDir m_directory;
    std::string m_out;
    std::string m_err;
    Json m_events;
    size_t m_lanes = 0;
};

TEST_F(TraceTest, EachRowIsDrawnOnceAndNests) {
    std::mt19937 random(7);
    std::vector<Span> rows;
    for (uint64_t i = 0; i < 4000; ++i) {
        // By turns tasks of which many are under way at once, and device work that mostly nests.
        const uint64_t start = i * 100;
        const std::string number = std::to_string(i);
        const uint32_t tid = 1 + static_cast<uint32_t>(random() % 3);
        rows.push_back({start, start + random() % 6400, "task_" + number, tid});
        rows.push_back({start, start + random() % 300, "load_graph_" + number + "_device_1", tid});
    }
    std::shuffle(rows.begin(), rows.end(), random);
    std::string frames;
    std::string tasks = kTasksHeader;
    for (const Span& row : rows) {
        const std::string line =
            row.name + "," + std::to_string(row.start) + "," + std::to_string(row.end);
        frames.insert(random() % 2 == 0 ? 0 : frames.size(), line + "\n");
        tasks += line + ",77," + std::to_string(row.tid) + "\n";
    }
    EXPECT_EQ(run(kFramesHeader + frames, tasks), 0);
    EXPECT_EQ(m_err, "");
    EXPECT_THAT(m_out, HasSubstr("frames file: 0, only in the tasks file: 0, lines left out: 0"));
    EXPECT_EQ(spans(), std::multiset<Span>(rows.begin(), rows.end()));
}

TEST_F(TraceTest, TasksShareAsManyLanesAsAreUnderWayAtOnce) {
    std::string tasks;
    for (uint64_t i = 0; i < 1000; ++i) {  // eight at once, as they end
        tasks += "task_" + std::to_string(i) + "," + std::to_string(i * 10) + "," +
                 std::to_string(i * 10 + 80) + ",77,78\n";
    }
    EXPECT_EQ(run("", tasks), 0);
    EXPECT_EQ(spans().size(), 1000U);
    EXPECT_EQ(m_lanes, 8U);
}

TEST_F(TraceTest, GraphsAndDevicesOfSpansHaveTheNamesThatTheEventsTell) {
    EXPECT_EQ(run("", "unload_graph_2_device_0,1,2,10,11\nload_graph_3,1,2,10,11\n", "",
                  R"({"graph_id":2,"graph":"a \"net\"","device_id":0,"device":"Fake0"})"),
              0);
    std::map<std::string, Json> details;
    for (const Json& event : m_events) {
        if (event["ph"] != "M" && event["ph"] != "e")
            details[event["name"]] = event.value("args", Json());
    }
    EXPECT_EQ(details["unload_graph_2_device_0"],
              Json({{"graph", "a \"net\""}, {"device", "Fake0"}}));
    EXPECT_EQ(details["load_graph_3"], Json());
}

TEST_F(TraceTest, ThreadsAndProcessesHaveTheirNames) {
    EXPECT_EQ(run("", "a,1,2,10,11\nb,1,2,10,12\nc,1,2,20,21\n",
                  "[0] threadId=11 threadName=GraphMgrT0\nnonsense\n"
                  "[1] threadId=21 threadName=a \"quoted\" name\n[2] threadId=x threadName=y\n"),
              0);
    std::set<std::string> names;
    for (const Json& event : m_events) {
        if (event["ph"] != "M") continue;
        const bool isProcess = event["name"] == "process_name";
        names.insert(event[isProcess ? "pid" : "tid"].dump() + " " + event["args"]["name"].dump());
    }
    EXPECT_THAT(names, ElementsAre(R"(10 "kelmdaemon")", R"(11 "GraphMgrT0")", R"(12 "thread 12")",
                                   R"(20 "kelmdaemon")", R"(21 "a \"quoted\" name")"));
}

TEST_F(TraceTest, RowsOfOneFileAloneAreDrawnToo) {
    EXPECT_EQ(run("frame,1,2\n", ""), 0);
    EXPECT_EQ(run("both,1,2\nframe,3,4\nframe,3,4\ntwice,5,6\n",
                  "twice,5,6,7,8\nboth,1,2,7,8\ntask_1,3,4,7,8\ntwice,5,6,7,8\n"),
              0);
    EXPECT_THAT(m_out, HasSubstr("6 spans"));
    EXPECT_THAT(m_out, HasSubstr("frames file: 2, only in the tasks file: 2"));
    const Span frame{3, 4, "frame", 0};
    const Span twice{5, 6, "twice", 8};
    EXPECT_THAT(spans(), ElementsAre(Span{1, 2, "both", 8}, frame, frame, Span{3, 4, "task_1", 8},
                                     twice, twice));
    EXPECT_EQ(m_lanes, 4U);  // the thread's own track, one for the task and one for each frame
}

TEST_F(TraceTest, BrokenLinesAreToldAndLeftOut) {
    const std::string good = "good,1,2,3,4\n";
    const struct {
        const char* what;
        std::string tasks;
        const char* told;  // behind the path; null if the line is fine
    } rows[] = {
        {"too few fields", "a,1,2,3\n" + good, ":1: wrong number of fields"},
        {"too many fields", good + "a,1,2,3,4,5\n", ":2: wrong number of fields"},
        {"empty line", kTasksHeader + std::string("\n") + good, ":2: wrong number of fields"},
        {"no name", ",1,2,3,4\n" + good, ":1: no name"},
        {"no number", "a,1x,2,3,4\n" + good, ":1: ticks that are no number"},
        {"sign", "a,-1,2,3,4\n" + good, ":1: ticks that are no number"},
        {"more than 64 bits", "a,1,18446744073709551616,3,4\n" + good,
         ":1: ticks that are no number"},
        {"backwards", "a,2,1,3,4\n" + good, ":1: an end before its start"},
        {"id", "a,1,2,3,4294967296\n" + good, ":1: ids that are no number"},
        {"endless line", std::string(5 << 20, 'a') + "\n" + good, ":1: too long a line"},
        {"torn end", good + "a,1", ":2: wrong number of fields"},
        {"header of a later process", good + kTasksHeader, nullptr},
        {"line ends of another system",
         std::string("name,start_tsc.RDTSC,end_tsc,pid,tid\r\n") + "good,1,2,3,4\r\n", nullptr},
        {"no last line end", "good,1,2,3,4", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(run("good,1,2\n", row.tasks), 0);
        EXPECT_EQ(spans(), (std::multiset<Span>{{1, 2, "good", 4}}));
        EXPECT_THAT(m_out, HasSubstr(row.told != nullptr ? "left out: 1" : "left out: 0"));
        EXPECT_EQ(m_err,
                  row.told != nullptr ? m_directory.path() + "/tasks.csv" + row.told + "\n" : "");
    }
}

TEST_F(TraceTest, HostileFileIsToldInAFewLinesAndMakesGoodJson) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    std::erase_if(bytes, [](char byte) { return byte == ',' || byte == '\n'; });
    std::string junk = "junk\n";
    for (int i = 0; i < 10; ++i) junk += junk;
    EXPECT_EQ(run(junk, junk + bytes + ",0,18446744073709551615,4294967295,4294967295\n"), 0);
    EXPECT_LT(std::count(m_err.begin(), m_err.end(), '\n'), 50);
    EXPECT_THAT(m_out, HasSubstr("left out: 2048"));
    EXPECT_EQ(spans().size(), 1U);
    EXPECT_EQ(run(junk, junk), 1);  // no usable row
}

TEST_F(TraceTest, OptionsThatWouldHarmFilesAreRefused) {
    TraceOptions options{m_directory.path() + "/missing", "/dev/null", "/dev/null", "", 1.0};
    EXPECT_THROW(runTrace(options), std::runtime_error);
    options.frames = options.tasks = options.output = m_directory.write("same.csv", "a,1,2,3,4\n");
    EXPECT_THROW(runTrace(options), std::invalid_argument);
    EXPECT_EQ(std::filesystem::file_size(options.tasks), 10U);
    options = {"/dev/null", "/dev/null", m_directory.path() + "/out.json", "", 0.0};
    EXPECT_THROW(runTrace(options), std::invalid_argument);
}

}  // namespace
}  // namespace kelm::ctl
