#include "utils/ConfigParser.h"

#include "InstallDir.h"

namespace kelm {
namespace {

// A parser over files written for the test, the last one on top.
class ConfigParserTest : public ::testing::Test {
 protected:
    bool load(const std::string& text) {
        return m_parser.appendConfigFile(m_dir.write("file" + std::to_string(m_files++), text),
                                         true);
    }

    const TempDir& m_dir = installDir();
    ConfigParser m_parser;
    int m_files = 0;
};

TEST_F(ConfigParserTest, BadValuesFallThroughToOlderFiles) {
    ASSERT_TRUE(load(R"({"a": {"number": 5, "flag": true, "real": 0.5, "kept": 9}})"));
    ASSERT_TRUE(load(R"({"a": {"number": "five", "flag": "maybe", "real": "x"}})"));
    EXPECT_EQ(m_parser.parseIntegerFromConfigList("a.number", 1), 5);
    EXPECT_TRUE(m_parser.parseBooleanFromConfigList("a.flag", false));
    EXPECT_EQ(m_parser.parseDoubleFromConfigList("a.real", 1.0), 0.5);
    EXPECT_EQ(m_parser.parseIntegerFromConfigList("a.kept", 1), 9);
    EXPECT_EQ(m_parser.parseStringFromConfigList("a.number", ""), "five");
}

TEST_F(ConfigParserTest, CommentsAreCutAndOnlyTheTextOnTurnsASwitchOn) {
    ASSERT_TRUE(
        load("// head\n{ \"a\": \"on\", // tail }\n\"b\": \"ON\", \"c\": true, "
             "\"d\": \" on\"}\n"));
    EXPECT_TRUE(m_parser.isSwitchTurnedOn("a", "off"));
    for (const char* key : {"b", "c", "d"}) {
        EXPECT_FALSE(m_parser.isSwitchTurnedOn(key, "on")) << key;
    }
    EXPECT_TRUE(m_parser.isSwitchTurnedOn("missing", "on"));
}

TEST_F(ConfigParserTest, UnusableFilesStayOffTheStack) {
    const auto nested = [](int levels) {
        return "{\"a\": " + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
    };
    const std::string longest = "{\"b\": 1}" + std::string((1 << 20) - 8, ' ');
    const struct {
        const char* what;
        std::string text;
        bool isUsable;
    } rows[] = {
        {"slashes in a text", R"({"a": "http://host"})", false},
        {"nothing", "", false},
        {"torn", R"({"a": 1)", false},
        {"no key", "{}", false},
        {"comments", "// nothing but this\n{ // and this\n}", false},
        {"64 levels", nested(64), true},
        {"65 levels", nested(65), false},
        {"brackets in a text", "{\"c\": \"\\\"" + std::string(70, '[') + "\"}", true},
        {"enough to end the process", std::string(1 << 20, '['), false},
        {"1 MB", longest, true},
        {"more than 1 MB", longest + " ", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(load(row.text), row.isUsable);
    }
    EXPECT_FALSE(m_parser.appendConfigFile(m_dir.path() + "/none", true));
    EXPECT_EQ(m_parser.parseIntegerFromConfigList("a", 7), 7);
}

TEST_F(ConfigParserTest, SubclassElementsAreLookedUpFileByFile) {
    ASSERT_TRUE(load(R"({"s": [{"subclass": 0, "k": 1}, {"subclass": 1, "k": 2},
                              {"subclass": 2, "k": 3}]})"));
    ASSERT_TRUE(load(R"({"s": [{"subclass": 1}, {"subclass": 1, "k": 20},
                              {"k": 99}, {"subclass": 2, "k": 30}]})"));
    const int values[] = {1, 20, 3, -1};  // the element without a subclass hides the one behind it
    for (int subclass = 0; subclass < 4; ++subclass) {
        EXPECT_EQ(m_parser.parseIntegerFromConfigListWithSubclass("s", "k", subclass, -1),
                  values[subclass]);
    }
}

TEST_F(ConfigParserTest, TagMapsAreReadUpToTheirFirstBadValue) {
    ASSERT_TRUE(
        load(R"({"s": [{"subclass": 0, "tags": {"a": 1, "nested": {"x": 1}, "b": 2, "a": 5}},
                              {"subclass": 1, "tags": {"a": 1, "bad": "one", "c": 3}},
                              {"subclass": 2, "tags": {"old": 4}}]})"));
    ASSERT_TRUE(load(R"({"s": [{"subclass": 2}]})"));
    using Tags = std::map<std::string, unsigned long>;
    const Tags expected[] = {{{"a", 1}, {"b", 2}}, {{"a", 1}}, {{"old", 4}}, {}};
    Tags tags{{"stale", 1}};
    for (int subclass = 0; subclass < 4; ++subclass) {
        SCOPED_TRACE(subclass);
        EXPECT_EQ(m_parser.parseTagMapFromConfigList("s", "tags", subclass, tags), subclass != 1);
        EXPECT_EQ(tags, expected[subclass]);
    }
}

TEST_F(ConfigParserTest, InvalidFirmwareIsLeftOut) {
    const std::string image = m_dir.write("lib/tevo/image", "x");
    const std::string standard = m_dir.write("lib/tevo/TevoAPI-zv4810.tvfrm", "x");
    ASSERT_TRUE(load(R"({"fw": [{"name": "old", "num": 1, "path": "image"}]})"));
    ASSERT_TRUE(load(R"({"fw": [{"name": "default", "num": 0, "path": "default"},
                               {"name": "x", "num": 0, "path": "image"},
                               {"name": "y", "num": 1, "path": ""},
                               {"name": "z", "num": 1, "path": "missing"},
                               {"name": "w", "num": 2, "path": "image"}]})"));
    std::vector<firmwareConfig> list = m_parser.parseFwFromConfigList("fw", "firmware list");
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].path, standard);
    EXPECT_EQ(list[1].path, image);
    EXPECT_EQ(list[1].num, 2);

    // A bad element ends its file; what was read stays and the older file follows.
    ASSERT_TRUE(load(R"({"fw": [{"name": "v", "num": 1, "path": "image"}, {"num": "one"}]})"));
    ASSERT_TRUE(load(R"({"fw": [{"name": "u", "num": "one", "path": "image"}]})"));
    list = m_parser.parseFwFromConfigList("fw", "firmware list");
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[0].name, "v");
}

}  // namespace
}  // namespace kelm
