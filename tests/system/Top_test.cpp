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
    for (const char* key : {"q", "\x03", ""}) {  // the last one: SIGTERM
        SCOPED_TRACE(key);
        TopProcess top;
        EXPECT_TRUE(top.shows("Fake2"));
        EXPECT_FALSE(top.hasModesOfBefore());
        top.type(key);
        if (*key == '\0') top.signal(SIGTERM);
        EXPECT_EQ(top.wait(), *key != '\0' ? 0 : 128 + SIGTERM);
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
