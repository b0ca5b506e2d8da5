#include "tools/kelmctl/StatusReport.h"

#include <clocale>
#include <nlohmann/json.hpp>

#include "tools/kelmctl/SafeText.h"

namespace kelm::ctl {
namespace {

using ::testing::HasSubstr;

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

TEST(StatusReportTest, HostileNamesBreakNeitherTableNorJson) {
    client::ServiceStatus status;
    status.clientCount = 3;
    status.devices.push_back({"dev\x1b[2J", 1.25f, "\xff\"\n", 40.0f, 7, 1});
    status.graphs.push_back({std::string(512, 'g'), 2.0f, 3.0f});
    status.clients.push_back({"caf\xc3\xa9", 4.0f});
    status.taskScheduler = "\x9bpolling";
    const auto isSafe = [](char byte) { return (byte >= ' ' && byte <= '~') || byte == '\n'; };
    const std::string table = statusTable(status, false);
    EXPECT_THAT(table, HasSubstr("CLIENTS 1 of 3"));
    EXPECT_THAT(table, HasSubstr("dev?[2J"));
    EXPECT_THAT(table, ::testing::Not(HasSubstr(std::string(41, 'g'))));
    EXPECT_TRUE(std::ranges::all_of(table, isSafe)) << table;

    const std::string text = statusJson(status, {});
    EXPECT_TRUE(std::ranges::all_of(text, isSafe)) << text;
    const auto json = nlohmann::json::parse(text);
    EXPECT_EQ(json["devices"][0]["name"], "dev\x1b[2J");
    EXPECT_EQ(json["devices"][0]["graph"], "\xef\xbf\xbd\"\n");
    EXPECT_EQ(json["clients"][0]["name"], "caf\xc3\xa9");
}

}  // namespace
}  // namespace kelm::ctl
