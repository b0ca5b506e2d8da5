#include "client/TensorPool.h"

#include <sys/resource.h>
#include <sys/statvfs.h>

#include <csignal>

#include "client/SegmentName.h"
#include "utils/UniqueFd.h"

namespace kelm::client {
namespace {

UniqueFd openNamed(const std::string& name, int flags = O_RDONLY) {
    return UniqueFd(::shm_open(name.c_str(), flags, 0600));
}

// Each of them ends at another moment of the look at it.
TEST(SegmentNameTest, ProcessThatEndsWhileItIsLookedAtIsNoError) {
    ASSERT_NE(::signal(SIGCHLD, SIG_IGN),
              SIG_ERR);  // so that nothing is left of one that has ended
    constexpr int kChildren = 200;
    const std::string own = SegmentName::make();
    const size_t rest = own.find('-', std::strlen("/kelm-"));
    for (int i = 0; i < kChildren; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::usleep(static_cast<useconds_t>(10 * i));
            ::_exit(0);
        }
        const std::string name = "/kelm-" + std::to_string(child) + own.substr(rest);
        const UniqueFd segment = openNamed(name, O_RDWR | O_CREAT);
        while (::kill(child, 0) == 0)
            EXPECT_NO_THROW((void)SegmentName::listThoseOfDeadProcesses());
        (void)::shm_unlink(name.c_str());  // pools of tests that run beside this one remove it, too
    }
    ::signal(SIGCHLD, SIG_DFL);
}

TEST(TensorPoolTest, SlotIsUsedAgainAndNeverByTwo) {
    TensorPool pool(100, 50);
    auto first = pool.acquire().value();
    const auto second = pool.acquire().value();
    const std::string name = first->inputTensor().name;
    EXPECT_NE(name, second->inputTensor().name);
    EXPECT_NE(name, first->outputTensor().name);
    EXPECT_EQ(first->input().size(), 100U);
    EXPECT_EQ(first->outputTensor().size, 50U);
    first->input()[0] = std::byte{42};
    std::byte read{};
    EXPECT_EQ(::pread(openNamed(name).get(), &read, 1, 0), 1);
    EXPECT_EQ(read, std::byte{42});
    first.reset();
    EXPECT_EQ(pool.acquire().value()->inputTensor().name, name);
}

TEST(TensorPoolTest, NamesEndWithThePoolAndTheLastHandle) {
    auto pool = std::make_unique<TensorPool>(100, 50);
    auto held = pool->acquire().value();
    auto given = pool->acquire().value();
    const std::string names[] = {given->inputTensor().name, given->outputTensor().name,
                                 held->inputTensor().name, held->outputTensor().name};
    given.reset();
    for (const std::string& name : names) EXPECT_TRUE(openNamed(name));
    pool.reset();
    EXPECT_FALSE(openNamed(names[0]) || openNamed(names[1]));
    held->output()[49] = std::byte{1};  // a handle may outlive the pool
    held.reset();
    for (const std::string& name : names) EXPECT_FALSE(openNamed(name)) << name;
}

TEST(TensorPoolTest, NewPoolRemovesOnlyWhatDeadProcessesOfTheUserHaveLeft) {
    TensorPool pool(1, 1);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto left = pool.acquire();
        ::_exit(left ? 0 : 1);
    }
    siginfo_t info;
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);  // a zombie
    ASSERT_EQ(info.si_status, 0);
    const auto held = pool.acquire().value();
    const std::string own = held->inputTensor().name;
    std::vector<std::string> parts;  // "/kelm", pid, namespace, start, random
    std::istringstream stream(own);
    for (std::string part; std::getline(stream, part, '-');) parts.push_back(part);
    ASSERT_EQ(parts.size(), 5U) << own;
    const auto join = [&](const std::string& space, const std::string& start) {
        return parts[0] + "-" + parts[1] + "-" + space + "-" + start + "-" + parts[4];
    };
    const std::pair<std::string, bool> rows[] = {
        {join(parts[2], "1"), false},             // of an earlier process of the same number
        {join(parts[2], "0"), true},              // of a process whose start is unknown
        {join("1", "1"), true},                   // of another namespace
        {join(parts[2], "1") + "0", true},        // of another form
        {join(parts[2], "2"), ::geteuid() == 0},  // of another user, where a test can make one
    };
    // Pools of tests that run beside this one may remove the same ones.
    for (const auto& [name, stays] : rows) ASSERT_TRUE(openNamed(name, O_CREAT | O_RDWR));
    (void)!::chown(("/dev/shm" + std::end(rows)[-1].first).c_str(), 65534, 65534);
    TensorPool(1, 1);
    const std::string ofChild = "/dev/shm/kelm-" + std::to_string(child) + "-";
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        EXPECT_FALSE(entry.path().string().starts_with(ofChild)) << entry.path();
    }
    EXPECT_TRUE(openNamed(own));
    for (const auto& [name, stays] : rows) {
        EXPECT_EQ(static_cast<bool>(openNamed(name)), stays) << name;
        ::shm_unlink(name.c_str());
    }
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST(TensorPoolTest, MemoryThatCannotBeHadIsAnErrorWithItsCauseAndRemedy) {
    struct statvfs memory {};
    ASSERT_EQ(::statvfs("/dev/shm", &memory), 0);
    const struct {
        size_t size;
        __rlimit_resource limit;  // of which this process has nothing meanwhile
        std::vector<const char*> words;
    } rows[] = {
        {size_t{1} << 63, RLIMIT_CORE, {"8796093022208.0 MB", "for the output", "check the sizes"}},
        // What could be promised, but would not be there at the first write.
        {(memory.f_blocks + 1) * memory.f_frsize,
         RLIMIT_CORE,
         {"No space left", " left; make fewer", "remount,size="}},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which need both
        {5 << 20, RLIMIT_NOFILE, {"5.0 MB", "Too many open files", "ulimit -n"}},
        {5 << 20, RLIMIT_AS, {"5.0 MB", "Cannot allocate memory", "ulimit -v"}},
#endif
    };
    for (const auto& row : rows) {
        TensorPool pool(0, row.size);
        rlimit usual{};
        ASSERT_EQ(::getrlimit(row.limit, &usual), 0);
        const rlimit none{0, usual.rlim_max};
        ASSERT_EQ(::setrlimit(row.limit, &none), 0);
        const auto slot = pool.acquire();
        ASSERT_EQ(::setrlimit(row.limit, &usual), 0);
        ASSERT_FALSE(slot);
        EXPECT_EQ(slot.error().kind(), ErrorKind::kSystem);
        for (const char* words : row.words) EXPECT_THAT(slot.error().text(), HasSubstr(words));
    }
}

}  // namespace
}  // namespace kelm::client
