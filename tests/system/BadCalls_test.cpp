#include "fakes/OtherUser.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "system/CommandProcess.h"

namespace kelm {
namespace {

// What a call meets.
enum class Scene {
    kNoService,
    kService,
    kNoRights,  // as another user, whom the socket keeps out
    kStranger,  // as another user, who may connect
    kHungService,
    kSignal,  // which comes when the call has shared memory
};

struct Row {
    Scene scene;
    const char* arguments;
    int status;
    const char* cause;
    const char* fix;
};

// After "infer" comes the input; its graph and output are added.
constexpr Row kRows[] = {
    {Scene::kService, "", 2, "no command", "see kelmctl --help"},
    {Scene::kService, "infr --graph graph", 2, "unknown command 'infr'", "'infer'"},
    {Scene::kService, "infer", 2, "--graph is required", "see kelmctl infer --help"},
    {Scene::kService, "infer input --timeout nan", 2, "time-out", "0.001 to 86400 seconds"},
    {Scene::kService, "infer input --output input", 2, "would replace", "input"},
    {Scene::kService, "status --watch 0", 2, "watch", "0.1 to 86400 seconds"},
    {Scene::kService, "load graph --warm -1", 2, "--warm = -1", "see kelmctl load --help"},
    {Scene::kService, "reset", 2, "name one device", "kelmctl status"},
    {Scene::kService, "reset Fake0 --all", 2, "one device, or", "--all"},
    {Scene::kService, "wait-ready --devices x", 2, "--devices = x", "see kelmctl wait-ready"},
    {Scene::kService, "stop --timeout -1", 2, "time-out", "0 to 1000000 seconds"},
    {Scene::kService, "bench --graph graph --depth many", 2, "not 'many'", "from 1 to 65536"},
    {Scene::kService, "bench --graph graph --clients 0", 2, "number of clients", "1 to 512"},
    {Scene::kService, "top --fast", 2, "--fast", "see kelmctl top --help"},
    {Scene::kService, "top </dev/null", 1, "needs a terminal", "status --watch"},
    {Scene::kService, "config chek", 2, "unknown command 'config chek'", "'config check'"},
    {Scene::kService, "config check graph -c graph", 2, "name the files", "--config-file"},
    {Scene::kService, "config show", 1, "KELM_INSTALL_DIR is not set", "set it"},
    {Scene::kService, "doctor --timeout 0", 2, "time-out", "0.001 to 86400 seconds"},
    {Scene::kService, "trace none none -o result", 1, "cannot read none", ""},
    {Scene::kNoService, "status", 1, "no such socket", "start kelmdaemon"},
    {Scene::kNoService, "wait-ready --timeout 0.05", 1, "ready.mutex", "start kelmdaemon"},
    {Scene::kNoService, "wait-ready --devices 1 --timeout 0", 1, "nobody", "start kelmdaemon"},
    {Scene::kNoRights, "infer input --output /dev/null", 1, "nobody", "user_group"},
    {Scene::kNoRights, "wait-ready", 1, "nobody", "security_settings.user_group"},
    {Scene::kStranger, "load secret", 1, "secret: Permission denied", "give this user the rights"},
    {Scene::kStranger, "infer input", 1, "result: Permission denied", "may write to"},
    {Scene::kStranger, "stop", 1, "may not signal the service", "sudo kill -USR1"},
    {Scene::kService, "infer missing", 1, "missing: No such file", "that exists"},
    {Scene::kService, "infer input --output none/x", 1, "none/x: No such", "a directory that is"},
    {Scene::kService, "infer short", 1, "36000 bytes of input, short has 5", "--pad"},
    {Scene::kService, "infer long --pad", 1, "36000 bytes of input, long has 36001", "that size"},
    {Scene::kService, "load empty", 1, "empty", "give a compiled graph"},
    {Scene::kService, "load graph --tag none", 1, "tag", "check them against its configuration"},
    {Scene::kService, "infer input --subclass 7", 1, "offers no devices", "check them"},
    {Scene::kService, "load graph --timeout 0.05", 1, "none of the 3 devices", "more time"},
    {Scene::kService, "reset 99", 1, "no such device", "device list again"},
    {Scene::kService, "reset nix", 1, "no device nix", "the service has: Fake0"},
    {Scene::kService, "wait-ready --devices 9 --timeout 0.05", 1, "3 of 9", "plug in more"},
    {Scene::kService, "wait-ready --graph nix --timeout 0.05", 1, "graph nix", "kelmctl load"},
    {Scene::kHungService, "infer input --timeout 0.1", 1, "no answer", "give it more time"},
    {Scene::kHungService, "stop --timeout 0.1", 1, "does not answer", "kill -KILL"},
    {Scene::kSignal, "infer input", 128 + SIGINT, "interrupted", ""},
    {Scene::kSignal, "load graph --warm 1000", 128 + SIGINT, "interrupted", ""},
};

class BadCallsTest : public SystemFixture {
 protected:
    // All calls are made from the directory "files".
    void prepare() {
        start(R"("fake_device_settings": {"fake_device_number": 3, "alloc_graph_latency": 300,
            "load_tensor_latency": 500, "get_result_latency": 500})");
        const TempDir& dir = service().files();
        ::chmod(dir.path().c_str(), 0755);
        const std::pair<const char*, size_t> files[] = {
            {"files/graph", 9},     {"files/secret", 9},   {"files/empty", 0}, {"files/short", 5},
            {"files/input", 36000}, {"files/long", 36001}, {"none/.keep", 0},  {"errors", 0}};
        for (const auto& [name, size] : files) dir.write(name, std::string(size, 'i'));
        ::chmod((dir.path() + "/files/secret").c_str(), 0600);
        ::chmod(errors().c_str(), 0666);
        std::filesystem::current_path(dir.path() + "/files");
    }

    void TearDown() override {
        std::filesystem::current_path("/");  // the present one goes with the service
        SystemFixture::TearDown();
    }

    // The directory in which the call looks for the service.
    std::string enter(Scene scene) const {
        if (scene == Scene::kStranger) OtherUser::letIn(path());
        if (scene == Scene::kHungService) service().signal(SIGSTOP);
        return scene == Scene::kNoService ? service().dir() + "/none" : service().runDir();
    }

    void run(const Row& row) const {
        SCOPED_TRACE(row.arguments);
        const bool isOther = row.scene == Scene::kNoRights || row.scene == Scene::kStranger;
        if (isOther && !OtherUser::isPossible()) return;
        const auto before = files();
        const ScopedEnv env{"KELM_RUN_DIR", enter(row.scene)};
        CommandProcess call(complete(row.arguments) + " >/dev/null 2>" + errors(),
                            isOther ? OtherUser::kId : ::geteuid());
        const pid_t pid = call.pid();
        if (row.scene == Scene::kSignal) {
            EXPECT_TRUE(eventually([&] { return call.segments().size() == 2; }));
            call.signal(SIGINT);
        }
        EXPECT_EQ(call.wait(), row.status);
        service().signal(SIGCONT);
        const std::string text = readText(errors());
        EXPECT_THAT(text, AllOf(StartsWith("kelmctl: "), HasSubstr(row.cause), HasSubstr(row.fix)));
        EXPECT_EQ(text.find('\n'), text.size() - 1) << "not one line";
        EXPECT_EQ(files(), before);
        expectNothingLeft(pid);
    }

    void expectNothingLeft(pid_t pid) const {
        EXPECT_NE(::kill(-pid, 0), 0) << "a process of its group";
        const std::string segment = "/dev/shm/kelm-" + std::to_string(pid) + "-";
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
            EXPECT_FALSE(entry.path().string().starts_with(segment));
        }
        EXPECT_TRUE(eventually([&] {
            const auto package = readPackage();
            return package->clientCount == 0 && package->graphCount == 0;
        }));
    }

 private:
    static std::string complete(const std::string& arguments) {
        constexpr std::string_view kInfer = "infer ";
        if (!arguments.starts_with(kInfer)) return arguments;
        const bool hasOutput = arguments.find("--output") != arguments.npos;
        return "infer --graph graph" + std::string(hasOutput ? "" : " --output result") +
               " --input " + arguments.substr(kInfer.size());
    }
    static std::set<std::string> files() {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(".")) {
            names.insert(entry.path());
        }
        return names;
    }
    std::string errors() const { return service().dir() + "/errors"; }
};

TEST_F(BadCallsTest, EachTellsCauseAndFixInOneLineAndLeavesNothing) {
    prepare();
    for (const Row& row : kRows) run(row);
}

}  // namespace
}  // namespace kelm
