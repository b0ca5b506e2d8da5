#include "tools/kelmctl/StatusTable.h"

#include <clocale>
#include <nlohmann/json.hpp>

#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusJson.h"

namespace kelm::ctl {
namespace {

TEST(SafeTextTest, NothingThatATerminalObeysPasses) {
    std::setlocale(LC_CTYPE, "C.UTF-8");  // widths of characters come from it
    const struct {
        const char* what;
        std::string bytes;
        const char* utf8;
        const char* ascii;
    } rows[] = {
        {"plain", "a ~", "a ~", "a ~"},
        {"escape, bell, line end, delete", "\x1b]0;x\a\n\x7f", "?]0;x???", "?]0;x???"},
        {"8-bit escape as UTF-8", "\xc2\x9b[2J", "?[2J", "?[2J"},
        {"8-bit escape as a byte", "\x9b[2J", "?[2J", "?[2J"},
        {"letters", "\xc3\xa9\xe6\xbc\xa2", "\xc3\xa9\xe6\xbc\xa2", "??"},
        {"overlong", "\xc0\x9b", "??", "??"},
        {"surrogate", "\xed\xa0\x80", "???", "???"},
        {"above the last", "\xf4\x90\x80\x80", "????", "????"},
        {"cut short", "\xe6\xbc", "??", "??"},
        {"combining, turned direction", "a\xcc\x81\xe2\x80\xae", "a??", "a??"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(toUtf8(safeText(row.bytes, true)), row.utf8);
        EXPECT_EQ(toUtf8(safeText(row.bytes, false)), row.ascii);
    }
    const std::u32string wide = U"\u6f22\u6f22\u6f22\u6f22\u6f22\u6f22 and a tail";
    for (size_t width = 0; width < 30; ++width) {
        EXPECT_EQ(columnsOf(fitColumns(wide, width)), width);
        EXPECT_EQ(columnsOf(fitColumnsRight(wide, width)), width);
    }
    EXPECT_EQ(toUtf8(fitColumns(U"a long name of a graph", 12)), "a lon...raph");
    std::setlocale(LC_CTYPE, "C");
}

class StatusTableTest : public ::testing::Test {
 protected:
    StatusTableTest() {
        client::ServiceStatus& status = m_look.status;
        status.clientCount = 3;
        status.devices = {{"dev\x1b[2J", 1.25f, "\xff\"\n", 40.0f, 7, 1}, {"new", 0, "", 0, 8, 0}};
        status.graphs = {{std::string(512, 'g'), 2.0f, 3.0f}};
        status.clients = {{"caf\xc3\xa9", 4.0f}};
        status.taskScheduler = "\x9bpolling";
    }
    std::string table(size_t columns) const {
        const std::string text = statusTable(m_look, false, columns);
        EXPECT_TRUE(std::ranges::all_of(text, isSafe)) << text;
        return text;
    }
    nlohmann::json json() const {
        const std::string text = statusJson(m_look, {});
        EXPECT_TRUE(std::ranges::all_of(text, isSafe)) << text;
        return nlohmann::json::parse(text);
    }

    StatusLook m_look;

 private:
    static bool isSafe(char byte) { return (byte >= ' ' && byte <= '~') || byte == '\n'; }
};

TEST_F(StatusTableTest, HostileNamesBreakNeitherTableNorJson) {
    EXPECT_THAT(table(SIZE_MAX), AllOf(HasSubstr("CLIENTS 1 of 3"), HasSubstr("dev?[2J"),
                                       Not(HasSubstr(std::string(41, 'g')))));
    std::istringstream lines(table(80));
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
    EXPECT_EQ(json()["devices"][0]["name"], "dev\x1b[2J");
    EXPECT_EQ(json()["devices"][0]["graph"], "\xef\xbf\xbd\"\n");
    EXPECT_EQ(json()["clients"][0]["name"], "caf\xc3\xa9");
}

TEST_F(StatusTableTest, WhatOneSourceLacksIsNullAndNoZero) {
    m_look.snapshotWhy = "refused";
    EXPECT_THAT(table(SIZE_MAX), HasSubstr("refused"));
    EXPECT_TRUE(json()["devices"][0]["throttling"].is_null() && json()["memory"].is_null());
    EXPECT_TRUE(json()["devices"][1]["thermal"].is_null());  // not measured yet
    client::Snapshot& snapshot = m_look.snapshot.emplace();
    snapshot.devices = {{7, 40.0f, 2, {{"a", "", 5, 0.0f}, {"b", "", 6, 0.0f}}, {}}};
    snapshot.graphs = {{3, m_look.status.graphs[0].name, 2.0f, 3.0f, 1, 11, 9, 2, {}}};
    snapshot.clients = {{1, "only here", 2, 0, 11, 4}};
    EXPECT_THAT(table(SIZE_MAX), HasSubstr("only here"));
    const auto values = json();
    EXPECT_EQ(values["devices"][0]["inferences"], 11);
    EXPECT_EQ(values["devices"][0]["graphs"][1]["name"], "b");
    EXPECT_TRUE(values["devices"][1]["throttling"].is_null());
    EXPECT_EQ(values["graphs"][0]["waiting"], 9);
    EXPECT_TRUE(values["clients"][0]["waiting"].is_null());
    EXPECT_EQ(values["clients"][1]["waiting"], 4);
    EXPECT_TRUE(values["clients"][1]["fps"].is_null());
}

}  // namespace
}  // namespace kelm::ctl
