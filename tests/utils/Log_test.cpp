#include "utils/Log.h"

#include <regex>

#include "utils/TextHelper.h"
#include "utils/TextTable.h"
#include "utils/TimeHelper.h"
#include "utils/Utf8.h"

namespace kelm {
namespace {

TEST(LogTest, BothGatesDecideAndClosedOnesEvaluateNothing) {
    int evaluated = 0;
    const auto touch = [&] { return ++evaluated; };
    ::testing::internal::CaptureStdout();
    Log::instance().setLogLevel(0xFF);
    LOG_PROC(false, "%d", touch());
    Log::instance().setLogLevel(0xFE);
    LOG_PROC(true, "%d", touch());
    Log::instance().setLogLevel(0);
    LOG_ERROR("%d", touch());
    Log::instance().setLogLevel(0xCC);
    LOG_INFO("n=%d", touch());
    LOG_INFO_OF("dev0", "m");
    LOG_WARN("w");
    LOG_ERROR("%s failed", "x");
    const std::string text = ::testing::internal::GetCapturedStdout();
    const std::string place = R"(\[Log_test\.cpp:\d+\])";
    const std::string pattern = R"(\[\d\d:\d\d:\d\d\.\d{4}\]\[\d+\]I)" + place + " n=1\n.*I" +
                                place + "\\[dev0\\] m\n\033\\[1;36;40m\\[.*\\]W" + place +
                                " w\033\\[0m\n\033\\[1;31;40m\\[.*\\]ERROR" + place +
                                " x failed\033\\[0m\n";
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
}

TEST(StringHelperTest, ValuesPrintAsTheirDirectivesSayAndBadFormatsNeverThrow) {
    enum Colour : int32_t { kRed = -5 };
    EXPECT_EQ(StringHelper::format("%lu %d %x %.2f %s %c %d", uint64_t{1} << 63, kRed, -1, 2.0f / 3,
                                   std::string("t"), 'c', uint8_t{65}),
              "9223372036854775808 -5 ffffffff 0.67 t c 65");
    EXPECT_THAT(StringHelper::format("a=%d", 1, 2), StartsWith("a=%d[BoostError: "));
}

TEST(TextHelperTest, TextsAreShortenedInTheMiddleAndNeverCutByAlignment) {
    EXPECT_EQ(shortenText("abcdefghijklmnopqrst", 17), "abcdefg...nopqrst");
    EXPECT_EQ(shortenText("abcdefgh", 7), "abcdefg");
    EXPECT_EQ(shortenText("short", 17), "short");
    EXPECT_EQ(toLower("A\u00c9Zaz@["), "a\u00c9zaz@[");
    EXPECT_EQ(Utf8::head("a\u00e9\u20ac", 3), "a\u00e9");
    EXPECT_EQ(Utf8::head("a\u00e9\u20ac", 5), "a\u00e9");
    EXPECT_EQ(Utf8::head("a\xff\xff", 2), "a\xff");
    EXPECT_EQ(alignLeft("ab", 4) + "|" + alignRight("ab", 4) + "|" + alignLeft("abcde", 4),
              "ab  |  ab|abcde");
}

TEST(TextHelperTest, ControlCharactersBecomeTextAndReadableOnesStay) {
    const std::pair<const char*, const char*> rows[] = {
        {"plain \\x1b \u00e9\u20ac\U0001f600", "plain \\x1b \u00e9\u20ac\U0001f600"},
        {"\x1b]0;t\x07\r\n\t\x7f", "\\x1b]0;t\\x07\\x0d\\x0a\\x09\\x7f"},
        {"\u0080\u009b\u00a0", "\\xc2\\x80\\xc2\\x9b\u00a0"},
        {"\x9b\xff\xc3", "\\x9b\\xff\\xc3"},
        {nullptr, "(null)"},
    };
    for (const auto& [raw, expected] : rows) EXPECT_EQ(escapeControls(raw), expected);
    TextTable table(2, 4);
    table.row("n", {std::string("a\nb\0", 4)});
    EXPECT_EQ(table.text(), "| n  | a\\x0ab\\x00 |\n");
}

TEST(TimeHelperTest, RestsAreRoundedUpAndFractionsKeepTheirLeadingZeros) {
    const auto now = &std::chrono::steady_clock::now;
    EXPECT_EQ(timeUntil(now() - 1s).count(), 0);
    EXPECT_TRUE(eventually([&] { return timeUntil(now() + 500us).count() == 1; }));
    const auto point = std::chrono::system_clock::time_point() + 5s + 7100us;
    EXPECT_THAT(formatTimeMilli(point), EndsWith(":05.007"));
}

}  // namespace
}  // namespace kelm
