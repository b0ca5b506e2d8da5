#include <sys/un.h>

#include <regex>

#include "fakes/ServiceProcess.h"
#include "tests/wire/WireClient.h"

namespace kelm {
namespace {

constexpr const char* kEndsBehindItsLastClient =
    R"({"service_settings": {"wait_seconds_before_exit": 0}})";

UniqueFd bindSocket(const std::string& name) {
    UniqueFd bound(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    name.copy(address.sun_path, sizeof(address.sun_path));
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(::bind(bound.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    return bound;
}

// The next message, empty if none comes in time.
std::string receive(const UniqueFd& socket) {
    char text[256];
    pollfd comes{socket.get(), POLLIN, 0};
    if (::poll(&comes, 1, 20000) != 1) return {};
    return {text, static_cast<size_t>(::recv(socket.get(), text, sizeof(text), 0))};
}

TEST(SupervisedTest, ManagerIsToldOfReadinessPopulationAndEndInOrder) {
    for (const bool detached : {false, true}) {
        SCOPED_TRACE(detached);
        ServiceProcess service(kEndsBehindItsLastClient);
        const std::string name = (detached ? "@" : "") + service.dir() + "/notify";
        const UniqueFd manager = bindSocket(name);
        const std::vector<std::string> arguments{"-c", "none", detached ? "-d" : "-cother"};
        service.start(arguments, {"NOTIFY_SOCKET=" + name});
        EXPECT_EQ(receive(manager), "READY=1\nSTATUS=2 devices, 0 clients");
        EXPECT_TRUE(service.isHeld("kelm_service_ready.mutex"));
        const auto begin = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<WireClient>> clients;
        for (int i = 0; i < 20; ++i) {
            clients.push_back(std::make_unique<WireClient>(service.socketPath(), "one"));
        }
        int messages = 0;
        std::string last = "none";
        for (; !last.empty() && last != "STATUS=2 devices, 20 clients"; ++messages) {
            last = receive(manager);
        }
        EXPECT_NE(last, "");
        // Those of one second are told together.
        EXPECT_LE(messages, 2 + (std::chrono::steady_clock::now() - begin) / 1s);
        clients.clear();
        while (last.starts_with("STATUS=")) last = receive(manager);
        EXPECT_EQ(last, "STOPPING=1\nSTATUS=Stopping");
        EXPECT_EQ(service.waitExit(), 0) << service.log();
        EXPECT_THAT(service.log(), HasSubstr("## Specified config file: none"));
    }
}

TEST(SupervisedTest, ManagerThatCannotBeReachedIsDoneWithout) {
    for (const std::string& name : {std::string("/absent/notify"), std::string("relative"),
                                    std::string("@"), "/" + std::string(300, 'x')}) {
        SCOPED_TRACE(name);
        ServiceProcess service(kEndsBehindItsLastClient);
        service.start({}, {"NOTIFY_SOCKET=" + name});
        ASSERT_TRUE(service.waitReady()) << service.log();
        EXPECT_NE(WireClient(service.socketPath()).registerClient("vanishes"), 0U);
        EXPECT_EQ(service.waitExit(), 0) << service.log();
    }
}

// Its log goes through a pipe, which the shell's variable OWN names.
TEST(SupervisedTest, PipeGetsEachLineAtOnceAndTheJournalItsPriorities) {
    constexpr const char* kPiped =
        R"({ exec 3>&1; OWN=$(stat -Lc %d:%i /proc/self/fd/3); eval exec env JOURNAL_STREAM=$0 )" KELM_DAEMON
        R"( -c absent 3>&- 2>&-; } | cat)";
    for (const bool journal : {false, true}) {
        SCOPED_TRACE(journal);
        // Tables, which have lines of their own, would also push the pipe's lines out.
        const std::string tables = journal ? "base" : "none";
        ServiceProcess service(R"({"service_settings": {"wait_seconds_before_exit": 0},
            "debug_settings": {"info_printer": {
                "print_interval": 1, "client_snapshot_mode": ")" +
                               tables + R"("}}})");
        service.start({"-c", kPiped, journal ? "$OWN" : "1:1"}, {}, "/bin/sh");
        ASSERT_TRUE(service.waitReady()) << service.log();
        {
            const WireClient client(service.socketPath(), "piped");
            EXPECT_TRUE(service.waitLog("client(id:1) registered: clientName=piped"));
            EXPECT_TRUE(!journal || service.waitLog("| piped"));
        }
        EXPECT_EQ(service.waitExit(), 0) << service.log();
        std::istringstream log(service.log());
        const std::regex marked("(<[3-7]>|## ).*");
        for (std::string line; std::getline(log, line);) {
            EXPECT_EQ(std::regex_match(line, marked), journal || line.starts_with("## ")) << line;
        }
        EXPECT_THAT(service.log(), HasSubstr(journal ? "<3>[" : "\033[1;31;40m["));
    }
}

}  // namespace
}  // namespace kelm
