#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/TopProcess.h"

namespace kelm {
namespace {

using ::testing::HasSubstr;

using TopTest = SystemFixture;

TEST_F(TopTest, TerminalIsLeftAsItWas) {
    start(0);
    service().useRunDir();
    const struct {
        const char* what;
        void (*end)(const TopProcess& top);
        int status;
    } rows[] = {
        {"key", [](const TopProcess& top) { top.type("q"); }, 0},
        {"interrupt key", [](const TopProcess& top) { top.type("\x03"); }, 0},
        {"SIGTERM", [](const TopProcess& top) { top.signal(SIGTERM); }, 128 + SIGTERM},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TopProcess top;
        EXPECT_TRUE(top.shows("Fake2"));
        EXPECT_FALSE(top.hasModesOfBefore());
        row.end(top);
        EXPECT_EQ(top.wait(), row.status);
        EXPECT_TRUE(top.hasModesOfBefore());
        EXPECT_THAT(top.rest(), HasSubstr("\x1b[?1049l"));  // the screen of before
    }
}

TEST_F(TopTest, ServiceThatEndsAndComesBackIsTold) {
    start(0);
    service().useRunDir();
    TopProcess top;
    EXPECT_TRUE(top.shows("Fake2"));
    endService();
    EXPECT_TRUE(top.shows("NO SERVICE"));
    service().start();
    EXPECT_TRUE(service().waitReady());
    EXPECT_TRUE(top.shows("back since"));
    top.type("q");
    EXPECT_EQ(top.wait(), 0);
}

}  // namespace
}  // namespace kelm
