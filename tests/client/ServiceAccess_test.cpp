#include <dlfcn.h>
#include <sys/xattr.h>

#include "client/Client.h"
#include "fakes/ListenOn.h"
#include "fakes/OtherUser.h"
#include "utils/PeerCredentials.h"
#include "utils/ShareMemory.h"

static std::atomic<bool> g_refuseLists{false};

// In place of the C library's: a file system without access control lists.
extern "C" int fsetxattr(int fd, const char* name, const void* value, size_t size,
                         int flags) noexcept {
    if (g_refuseLists) return errno = EOPNOTSUPP, -1;
    const auto real = reinterpret_cast<decltype(&::fsetxattr)>(::dlsym(RTLD_NEXT, "fsetxattr"));
    return real(fd, name, value, size, flags);
}

namespace kelm::client {
namespace {

constexpr uid_t kService = OtherUser::kId;
constexpr uid_t kClient = OtherUser::kId - 1;
constexpr uid_t kStranger = OtherUser::kId - 2;

class ServiceAccessTest : public ::testing::Test {
 protected:
    void SetUp() override {
        if (!OtherUser::isPossible()) GTEST_SKIP() << "acting as another user needs root";
        OtherUser::letIn(m_dir.path());
        OtherUser::run([this] { m_listener = listenOn(m_path); }, kService);
        ASSERT_EQ(::chmod(m_path.c_str(), 0666), 0);
    }
    // Sends an inference of another user, which nobody answers; its slot is kept here.
    void infer(mode_t mask) {
        const mode_t before = ::umask(mask);
        const auto inferAsClient = [this] {
            m_client = Client::connect(m_path).value();
            m_client->onWarning([this](const std::string& text) { m_warnings.push_back(text); });
            m_slot = TensorPool(100, 50).acquire().value();
            m_client->inferAsync({.input = m_slot->inputTensor(), .output = m_slot->outputTensor()},
                                 [](const InferResult&) {});
        };
        OtherUser::run(inferAsClient, kClient);
        ::umask(before);
    }
    // What a service of the account can do with the tensor, asked as the service does.
    static bool opens(uid_t account, const Tensor& tensor) {
        const PeerCredentials client{1, kClient, {}};
        bool opened = false;
        const auto open = [&] {
            opened = ShareMemory().openFor(client, FileRights::WRITE, tensor.name.c_str(),
                                           tensor.size) != nullptr;
        };
        OtherUser::run(open, account);
        return opened;
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.path() + "/socket";
    UniqueFd m_listener;
    std::vector<std::string> m_warnings;
    TensorPool::Handle m_slot;
    std::unique_ptr<Client> m_client;
};

TEST_F(ServiceAccessTest, AccountOfTheServiceAndNobodyElseMayUseTheSegments) {
    for (const mode_t mask : {022, 077}) {
        SCOPED_TRACE(mask);
        infer(mask);
        for (const Tensor& tensor : {m_slot->inputTensor(), m_slot->outputTensor()}) {
            EXPECT_TRUE(opens(kService, tensor));
            EXPECT_FALSE(opens(kStranger, tensor));
        }
    }
    EXPECT_THAT(m_warnings, ElementsAre());
}

TEST_F(ServiceAccessTest, WithoutAccessListsTheSocketsGroupIsLetInAfterAWarning) {
    for (const gid_t group : {kClient, kStranger}) {
        m_warnings.clear();
        ASSERT_EQ(::chown(m_path.c_str(), kService, group), 0);
        g_refuseLists = true;
        infer(022);
        g_refuseLists = false;
        const bool isMember = group == kClient;
        const auto file = std::filesystem::status("/dev/shm" + m_slot->outputTensor().name);
        EXPECT_EQ(file.permissions(), std::filesystem::perms(isMember ? 0660 : 0600));
        ASSERT_EQ(m_warnings.size(), isMember ? 1U : 2U);
        EXPECT_THAT(m_warnings[0], HasSubstr("all of whose members"));
        EXPECT_THAT(m_warnings.back(), HasSubstr(isMember ? "members" : "make this user"));
    }
}

}  // namespace
}  // namespace kelm::client
