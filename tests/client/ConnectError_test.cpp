#include "client/Client.h"
#include "client/SnapshotReader.h"
#include "fakes/ListenOn.h"
#include "fakes/OtherUser.h"
#include "protocol/src/KelmError.h"

namespace kelm::client {
namespace {

class ConnectErrorTest : public ::testing::Test {
 protected:
    void expectCause(const std::string& words) const {
        for (const Error& error :
             {Client::connect(m_path).error(), SnapshotReader::connect(m_path).error()}) {
            EXPECT_EQ(error.kind(), ErrorKind::kNotConnected);
            EXPECT_THAT(error.text(), HasSubstr(m_path));
            EXPECT_THAT(error.text(), HasSubstr(words));
        }
    }

    const TempDir m_dir;
    std::string m_path = m_dir.path() + "/socket";
};

TEST_F(ConnectErrorTest, EachCauseHasItsOwnWords) {
    expectCause("no such socket");
    (void)listenOn(m_path);
    expectCause("the service that made it has ended");
    m_path = m_dir.write("file", "");
    expectCause("it is no socket");
    m_path = m_dir.path() + "/" + std::string(108 - m_dir.path().size(), 'x');
    expectCause("its 109 characters are more than the 107");
}

TEST_F(ConnectErrorTest, MissingRightsAreToldWithTheirRemedy) {
    if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
    const UniqueFd listener = listenOn(m_path);
    const auto expectAsOther = [this](const std::string& words) {
        OtherUser::run([&] { expectCause(words); });
    };
    expectAsOther("may not enter its directory");
    OtherUser::letIn(m_dir.path());
    const std::tuple<gid_t, mode_t, const char*> rows[] = {
        {4321, 0660, "user nobody runs with nogroup; run: sudo usermod -aG 4321 nobody"},
        {4321, 0600, "the socket's mode 0600"},
        {0, 0660, "set security_settings.user_group"},
    };
    for (const auto& [group, mode, words] : rows) {
        ASSERT_EQ(::chown(m_path.c_str(), 0, group), 0);
        ASSERT_EQ(::chmod(m_path.c_str(), mode), 0);
        expectAsOther(words);
    }
}

TEST(ErrorTest, AdviceFitsTheCall) {
    using enum CallKind;
    for (const CallKind call : {kOther, kCreateGraph, kInfer}) {
        const std::string text = Error::fromStatus(KELM_ERROR_INVALID_PARAM, call).text();
        EXPECT_EQ(text.find("tag") != text.npos, call == kCreateGraph) << text;
    }
}

}  // namespace
}  // namespace kelm::client
