#include "tools/kelmctl/export/page/Page.h"

#include <nlohmann/json.hpp>

#include "tools/kelmctl/export/page/HtmlWriter.h"
#include "tools/kelmctl/export/page/PageHistory.h"

namespace kelm::ctl {
namespace {

using std::chrono::seconds;

ExportSnapshot snapshotOf(double fps, const std::string& device) {
    ExportSnapshot snapshot;
    snapshot.isUp = true;
    snapshot.service.fps = fps;
    ExportedDevice& row = snapshot.devices.emplace_back();
    row.name = device;
    row.fps = fps;
    return snapshot;
}

TEST(HtmlWriterTest, TextsEndNoElementAndShowAllThatTheyHold) {
    const std::pair<std::string, std::string> rows[] = {
        {"<b title='a' id=\"b\">&amp;", "&lt;b title=&#39;a&#39; id=&quot;b&quot;&gt;&amp;amp;"},
        {"a\nb\x7f", "a\uFFFDb\uFFFD"},
        {"\u202eevil\u2066\u200f", "\uFFFDevil\uFFFD\uFFFD"},
        {"\xff\xc0\xbc", "\uFFFD\uFFFD\uFFFD"},  // the last two: '<' in a form too long
        {"caf\u00e9 \u0645\u200c\u0647", "caf\u00e9 \u0645\u200c\u0647"}};
    for (const auto& [text, escaped] : rows) {
        SCOPED_TRACE(escaped);
        HtmlWriter html;
        html.leaf("p", text, {{"title", text}});
        EXPECT_EQ(html.str(), "<p title=\"" + escaped + "\">" + escaped + "</p>");
    }
    HtmlWriter html;
    html.name(std::string(10000, '<') + "end");
    EXPECT_LT(html.str().size(), 250u);
    EXPECT_NE(html.str().find("end</bdi>"), std::string::npos);
}

TEST(PageHistoryTest, KeepsMeansAndGapsOfAQuarterOfAnHour) {
    PageHistory history;
    const PageHistory::Time start{seconds(1000)};
    const auto at = [](const PageHistory::Values& values, size_t age) {
        return values.at(PageHistory::kSlots - 1 - age);
    };
    history.add(snapshotOf(10, "a"), start);
    history.add(snapshotOf(20, "a"), start + seconds(4));
    EXPECT_EQ(at(history.values(PageHistory::kRate), 0), 20);
    history.add(snapshotOf(40, "b"), start + seconds(15));
    const auto rate = history.values(PageHistory::kRate);
    EXPECT_EQ(at(rate, 0), 40);
    EXPECT_EQ(at(rate, 1), std::nullopt);
    EXPECT_EQ(at(rate, 3), 15);
    EXPECT_EQ(at(history.deviceRate("a"), 0), std::nullopt);
    EXPECT_EQ(at(history.deviceRate("a"), 3), 15);
    EXPECT_EQ(at(history.deviceRate("b"), 3), std::nullopt);
    history.add({}, start + seconds(16));  // the service is gone
    EXPECT_EQ(at(history.values(PageHistory::kRate), 0), std::nullopt);
    history.add(snapshotOf(50, "c"), start + seconds(100000));
    EXPECT_EQ(history.deviceRate("a"), PageHistory::Values(PageHistory::kSlots));
    EXPECT_EQ(at(history.values(PageHistory::kRate), 0), 50);
    EXPECT_EQ(at(history.values(PageHistory::kRate), 1), std::nullopt);
}

TEST(PageHistoryTest, KeepsNoMoreDevicesThanItSays) {
    PageHistory history;
    const PageHistory::Time start{seconds(1000)};
    const auto isKnown = [&](const std::string& name) {
        return history.deviceRate(name).back().has_value();
    };
    ExportSnapshot crowd = snapshotOf(1, "0");
    for (size_t i = 1; i <= PageHistory::kMostDevices; ++i) {
        crowd.devices.emplace_back(crowd.devices[0]).name = std::to_string(i);
    }
    history.add(crowd, start);
    EXPECT_TRUE(isKnown("0"));
    EXPECT_FALSE(isKnown(std::to_string(PageHistory::kMostDevices)));
    // A quarter of an hour later there is room again.
    history.add(snapshotOf(1, "0"), start + seconds(899));
    history.add(snapshotOf(1, "new"), start + seconds(905));
    EXPECT_TRUE(isKnown("new"));
}

TEST(PageTest, TellsHowManyDevicesServe) {
    struct Row {
        uint32_t serving;
        bool isLost;
        int32_t throttling;
        std::string title;
        std::string trouble;
    };
    const Row rows[] = {{0, false, 0, "No device", "found no device"},
                        {0, true, 0, "No device", "All devices are lost"},
                        {1, false, 0, "Serving on 1 device", ""},
                        {33, false, 2, "Serving on 33 devices", "1 throttled"},
                        {33, true, 2, "Serving on 33 of 34 devices", "1 lost, 1 throttled"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        ExportSnapshot snapshot = snapshotOf(1, "a");
        snapshot.number = 1;
        snapshot.service.deviceCount = row.serving;
        snapshot.devices[0].throttling = row.throttling;
        if (row.isLost) snapshot.devices.emplace_back().isPresent = false;
        const std::string event = Page().event(snapshot);
        const auto json = nlohmann::json::parse(event.substr(event.find('{')));
        EXPECT_EQ(json.at("title"), row.title + " \u00b7 kelm");
        EXPECT_NE(json.at("body").get<std::string>().find(row.trouble), std::string::npos);
    }
}

TEST(PageTest, TellsMovesWhereTheServiceDoes) {
    Page page;
    ExportSnapshot snapshot = snapshotOf(1, "a");
    EXPECT_EQ(page.page(snapshot).body.find("moves\""), std::string::npos);
    snapshot.moves = {{{}, "net", "Fake0", "Fake1", true, "waits & waits"}};
    const auto json = nlohmann::json::parse(page.snapshotJson(snapshot).body);
    EXPECT_EQ(json.at("moves").at(0).at("reason"), "waits & waits");
    EXPECT_NE(page.page(snapshot).body.find("waits &amp; waits"), std::string::npos);
}

}  // namespace
}  // namespace kelm::ctl
