#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/TopProcess.h"

namespace kelm {
namespace {

using TopTest = SystemFixture;

TEST_F(TopTest, TerminalIsLeftAsItWasThoughTheServiceWasAway) {
    start(0);
    service().useRunDir();
    for (const char* key : {"q", "\x03", ""}) {
        SCOPED_TRACE(key);
        TopProcess top;
        EXPECT_TRUE(top.shows("Fake2"));
        EXPECT_FALSE(top.hasModesOfBefore());
        if (*key == '\0') {
            endService();
            EXPECT_TRUE(top.shows("NO SERVICE"));
            service().start();
            EXPECT_TRUE(top.shows("back since"));
        }
        top.type(key);
        if (*key == '\0') top.terminate();
        EXPECT_TRUE(top.shows("\x1b[?1049l"));  // the screen of before
        EXPECT_EQ(top.wait(), *key != '\0' ? 0 : 128 + SIGTERM);
        EXPECT_TRUE(top.hasModesOfBefore());
    }
    endService();
    EXPECT_THAT(service().log(), Not(HasSubstr("ERROR[")));  // it has left
}

}  // namespace
}  // namespace kelm
