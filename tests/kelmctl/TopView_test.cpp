#include "tools/kelmctl/TopView.h"

#include <clocale>

#include "tools/kelmctl/EventHistory.h"
#include "tools/kelmctl/SafeText.h"

namespace kelm::ctl {
namespace {

class TopViewTest : public ::testing::Test {
 protected:
    TopViewTest() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
    ~TopViewTest() override { std::setlocale(LC_CTYPE, "C"); }

    // More of everything than a terminal has lines for, under names that fit nowhere.
    void fillHostile() {
        client::ServiceStatus status;
        status.serviceFps = 3.0e38f;
        status.deviceScheduler = "\x1b[31mscheduler";
        for (int i = 0; i < 64; ++i) {
            const std::string number = std::to_string(i);
            status.devices.push_back({"device\r\x1b[2J" + number, 1e30f,
                                      "\xe6\xbc\xa2" + std::string(500, 'g'), -1e30f, UINT32_MAX,
                                      0});
            status.graphs.push_back({std::string(512, static_cast<char>(128 + i)), 0.1f, 1e6f});
            status.clients.push_back({"\xe2\x80\xae" + number, 9e21f});
        }
        client::Snapshot snapshot;
        snapshot.devices.push_back({UINT32_MAX, 0.0f, INT32_MAX, {{"", "", UINT64_MAX, 0.0f}}, {}});
        snapshot.clients.push_back(
            {1, status.clients[0].name, 65535, 65535, UINT64_MAX, UINT64_MAX});
        snapshot.memory = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX};
        m_model.setSnapshot(snapshot, m_now);
        m_model.setStatus(status, m_now);
    }

    // Draws, and checks what every picture must keep to.
    std::string draw(size_t width = 80, size_t height = 24, bool utf8 = true) {
        const TopFrame frame = TopView(m_model, m_controls, utf8).draw(width, height, m_now);
        m_controls.limitOffsets(frame.mostOffsets);
        std::string text;
        for (size_t y = 0; y < height; ++y) {
            const std::string line = frame.grid.line(y);
            const std::u32string safe = safeText(line, utf8);
            EXPECT_EQ(toUtf8(safe), line) << "not safe for a terminal";
            EXPECT_EQ(columnsOf(safe), width) << line;
            text += line + "\n";
        }
        return text;
    }
    void press(const std::vector<int>& keys) {
        for (const int key : keys) EXPECT_TRUE(m_controls.handleKey(key));
    }

    TopModel m_model;
    TopControls m_controls;
    TopModel::Time m_now{1000000s};
};

TEST_F(TopViewTest, HostileNamesAndSizesKeepTheirPlaces) {
    fillHostile();
    const std::string text = draw();
    for (const char* words : {"device??[2J0", "DEVICES\u25b2 1-6/64", "CLIENTS 1-5/64", "q quit",
                              "L2147.5M", "9000.0E"}) {  // a number is never cut
        EXPECT_THAT(text, HasSubstr(words));
    }
    for (const bool utf8 : {true, false}) {
        for (size_t width = 1; width < 200; width += 17) {
            for (size_t height = 1; height < 60; height += 8) (void)draw(width, height, utf8);
        }
    }
}

TEST_F(TopViewTest, MovesStandNewestFirstBelowTheirNumberSinceTheStart) {
    EXPECT_THAT(draw(), Not(HasSubstr("MOVES")));
    EventHistory history{3, {{"demand", 40}, {"tag", 2}}, {}};
    for (const char* line :
         {R"({"kind":"placement","seq":2,"action":"loaded","graph":"old","device":"D0"})",
          R"({"kind":"client","seq":3,"action":"registered"})",
          R"({"kind":"placement","seq":4,"action":"moved","graph":"\u001b[2Jnew","device":"D1",
              "from":"D0","reason":"reset"})"}) {
        history.events.push_back(parseEvent(line));
    }
    TopMoves moves;
    moves.begin(history);
    m_model.setMoves(moves);
    const std::string text = draw();
    EXPECT_THAT(text, AllOf(HasSubstr("MOVES of 43"), HasSubstr("moved ?[2Jnew"),
                            HasSubstr("D0 -> D1, reset")));
    EXPECT_LT(text.find("[2Jnew"), text.find("loaded old"));
}

TEST_F(TopViewTest, KeysReachTheSelectedSectionAndScrollToItsEnd) {
    fillHostile();
    press({'\t', '\t', 'z', kTopKeyUp});
    EXPECT_THAT(draw(), AllOf(HasSubstr(">CLIENTS 1-19/64"), Not(HasSubstr("DEVICES"))));
    for (int i = 0; i < 10; ++i) press({kTopKeyPageDown});
    EXPECT_THAT(draw(), HasSubstr(">CLIENTS 46-64/64"));
    press({kTopKeyUp});
    EXPECT_THAT(draw(), HasSubstr(">CLIENTS 45-63/64"));
    press({'/', 'q', kTopKeyBackspace, '6', '3'});  // a letter of the filter leaves nothing
    const auto onlyOne = AllOf(HasSubstr("?63"), Not(HasSubstr("?62")));
    EXPECT_THAT(draw(), AllOf(HasSubstr("filter: 63_"), onlyOne));
    press({'\n', kTopKeyBackTab, 27});
    EXPECT_THAT(draw(), HasSubstr(">GRAPHS 1-19/64"));
    EXPECT_FALSE(m_controls.handleKey('q'));
}

TEST_F(TopViewTest, LossAndReturnOfTheServiceAreSeen) {
    const auto later = [this](int seconds) { return m_now += std::chrono::seconds(seconds); };
    EXPECT_THAT(draw(), HasSubstr("- devices"));  // not measured yet
    m_model.setGone("none there", m_now);
    m_model.setGone("none on \x1b/path", later(3));
    EXPECT_THAT(draw(), HasSubstr(": none on ?/path"));
    client::ServiceStatus status;
    status.clients.push_back({"last seen", 1.0f});
    for (int i = 0; i < 2; ++i) m_model.setStatus(status, later(1));
    EXPECT_THAT(draw(), HasSubstr("after 4 s"));
    m_model.setSnapshotGone("refused");
    later(11);
    EXPECT_THAT(draw(), AllOf(HasSubstr("refused"), Not(HasSubstr("the service"))));
    const std::string cause = "it is for group accelerators, and user alice runs with alice";
    const std::string fix = "run: sudo usermod -aG accelerators alice";
    m_model.setGone("cannot connect to /a/path/of/a/socket: " + cause + "; " + fix, m_now);
    const std::string wide = draw(200);
    EXPECT_THAT(wide, AllOf(HasSubstr(cause), HasSubstr(fix), HasSubstr("/a/path")));
    std::string text = draw();
    // Two lines, which end between words and are filled up.
    std::ranges::replace(text, '\n', ' ');
    const auto areBlank = [](char a, char b) { return a == ' ' && b == ' '; };
    text.erase(std::unique(text.begin(), text.end(), areBlank), text.end());
    EXPECT_THAT(text, AllOf(HasSubstr(cause), HasSubstr(fix), Not(HasSubstr("/a/path"))));
    press({'?'});
    EXPECT_THAT(draw(), AllOf(HasSubstr("Shift-Tab"), Not(HasSubstr("last seen"))));
    press({'p', 'p'});  // the first one only leaves the help
    EXPECT_THAT(draw(), AllOf(HasSubstr("PAUSED"), HasSubstr("last seen")));
}

}  // namespace
}  // namespace kelm::ctl
