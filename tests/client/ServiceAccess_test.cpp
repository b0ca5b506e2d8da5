#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "client/Client.h"
#include "fakes/ListenOn.h"
#include "fakes/OtherUser.h"
#include "fakes/TempDir.h"
#include "utils/PeerCredentials.h"
#include "utils/ShareMemory.h"

namespace {

std::atomic<bool> g_refuseLists{false};

}  // namespace

// In place of the C library's: a file system without access control lists.
extern "C" int fsetxattr(int fd, const char* name, const void* value, size_t size,
                         int flags) noexcept {
    if (g_refuseLists) return errno = EOPNOTSUPP, -1;
    const auto real = reinterpret_cast<decltype(&::fsetxattr)>(::dlsym(RTLD_NEXT, "fsetxattr"));
    return real(fd, name, value, size, flags);
}

namespace kelm::client {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
    void TearDown() override {
        g_refuseLists = false;
        ::umask(m_umask);
    }

    // One inference of a user whose slot is kept here; nobody answers it.
    void infer() {
        OtherUser::run(
            [this] {
                m_client = Client::connect(m_path).value();
                m_client->onWarning(
                    [this](const std::string& text) { m_warnings.push_back(text); });
                m_pool.emplace(100, 50);
                m_slot = m_pool->acquire().value();
                const InferRequest request{.input = m_slot->inputTensor(),
                                           .output = m_slot->outputTensor()};
                const Error error = m_client->infer(request, std::chrono::milliseconds(20)).error;
                EXPECT_EQ(error.kind(), ErrorKind::kTimeout);
            },
            kClient);
    }
    // What a service of the account can do with the tensor, asked as the service does.
    static bool opens(uid_t account, const Tensor& tensor) {
        bool opened = false;
        OtherUser::run(
            [&] {
                const PeerCredentials client{1, kClient, {}};
                opened = ShareMemory().openFor(client, FileRights::WRITE, tensor.name.c_str(),
                                               tensor.size) != nullptr;
            },
            account);
        return opened;
    }
    struct stat look() const {
        struct stat info {};
        EXPECT_EQ(::stat(("/dev/shm" + m_slot->outputTensor().name).c_str(), &info), 0);
        return info;
    }

    const TempDir m_dir;
    const std::string m_path = m_dir.path() + "/socket";
    const mode_t m_umask = ::umask(022);
    UniqueFd m_listener;
    std::unique_ptr<Client> m_client;
    std::optional<TensorPool> m_pool;
    TensorPool::Handle m_slot;
    std::vector<std::string> m_warnings;
};

TEST_F(ServiceAccessTest, AccountOfTheServiceAndNobodyElseMayUseTheSegments) {
    for (const mode_t mask : {022, 077}) {
        SCOPED_TRACE(mask);
        ::umask(mask);
        ASSERT_NO_FATAL_FAILURE(infer());
        for (const Tensor& tensor : {m_slot->inputTensor(), m_slot->outputTensor()}) {
            EXPECT_TRUE(opens(kService, tensor));
            EXPECT_FALSE(opens(kStranger, tensor));
        }
    }
    EXPECT_THAT(m_warnings, ElementsAre());
}

TEST_F(ServiceAccessTest, WithoutAccessListsTheSocketsGroupIsLetInAfterAWarning) {
    g_refuseLists = true;
    ASSERT_EQ(::chown(m_path.c_str(), kService, kClient), 0);  // a group that the client is in
    ASSERT_NO_FATAL_FAILURE(infer());
    EXPECT_THAT(m_warnings, ElementsAre(HasSubstr("all of whose members")));
    EXPECT_EQ(look().st_mode & 0777U, 0660U);
    EXPECT_EQ(look().st_gid, kClient);
    m_warnings.clear();
    ASSERT_EQ(::chown(m_path.c_str(), kService, kStranger), 0);  // and one that it is not in
    ASSERT_NO_FATAL_FAILURE(infer());
    EXPECT_THAT(m_warnings, ElementsAre(HasSubstr("all of whose members"),
                                        HasSubstr("make this user a member")));
    EXPECT_EQ(look().st_mode & 0777U, 0600U);
}

}  // namespace
}  // namespace kelm::client
