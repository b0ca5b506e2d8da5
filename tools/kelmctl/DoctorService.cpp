#include "tools/kelmctl/DoctorService.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <utility>
#include <vector>

#include "client/Client.h"
#include "client/SnapshotReader.h"
#include "client/UserGroups.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/LockFile.h"
#include "tools/kelmctl/ProcessFacts.h"
#include "utils/RunPaths.h"

namespace kelm::ctl {

namespace {

using client::UserGroups;

// The errors of the client library tell the cause and behind a semicolon what mends it.
DoctorRow failed(const char* check, const std::string& error) {
    const size_t split = error.find("; ");
    if (split == error.npos) return {check, Verdict::kProblem, error, "see the service's log"};
    return {check, Verdict::kProblem, error.substr(0, split), error.substr(split + 2)};
}

client::Result<client::ServiceStatus> askStatus(client::Client& service,
                                                client::Deadline deadline) {
    if (client::Error error = service.registerClient("kelmctl", deadline)) return error;
    auto status = service.queryStatus(client::StatusParts::all(), deadline);
    (void)service.unregister(deadline);  // the connection ends anyhow
    return status;
}

void checkSnapshotSocket(client::Deadline deadline, DoctorReport& report) {
    const auto reader = client::SnapshotReader::connect({}, deadline);
    const client::Error error = reader ? reader.value()->read(deadline).error() : reader.error();
    if (error) return report.add(failed("snapshot socket", error.text()));
    report.add({"snapshot socket", Verdict::kOk, RunPaths::snapshotSocket(), ""});
}

// What to do where the holder of a lock is not the one that it ought to be; empty: all is well.
std::string adviceFor(const std::string& path, pid_t holder, const ServiceLook& service) {
    const bool isServed = service.status.has_value();
    if (path == RunPaths::startExitMutex()) {
        return holder != 0 ? "a client is starting the service, or it is ending; if this stays, "
                             "end that process"
                           : "";
    }
    if (holder == 0) {
        return isServed ? "the file is not the one of the running service: somebody has removed "
                          "that one; start the service again"
                        : "";
    }
    if (!isServed) {
        return "it does not serve: it is starting, ending, hangs, or is no service; see its log, "
               "or end it";
    }
    const bool isOther = holder > 0 && service.pid > 0 && holder != service.pid;
    return isOther ? fmt::format("{} listens on the socket; end one of the two",
                                 ProcessFacts(service.pid).describe())
                   : "";
}

void checkLock(const std::string& path, const ServiceLook& service, DoctorReport& report) {
    struct stat info {};
    const bool isThere = ::lstat(path.c_str(), &info) == 0;
    if (isThere && !S_ISREG(info.st_mode)) {
        return report.add({"lock", Verdict::kProblem, path + " is no plain file",
                           "find out who put it there, and remove it"});
    }
    pid_t holder = findLockHolder(path);
    // The kernel does not list those of a service outside of this container.
    if (holder == 0 && service.isElsewhere() && lookAtLock(path) == LockState::kHeld) holder = -1;
    const std::string text = fmt::format("{} is {}", path,
                                         holder != 0 ? "held by " + ProcessFacts(holder).describe()
                                         : isThere   ? "free"
                                                     : "not there");
    const std::string advice = adviceFor(path, holder, service);
    const bool isSerious = path != RunPaths::startExitMutex();
    const Verdict bad = isSerious ? Verdict::kProblem : Verdict::kWarning;
    report.add({"lock", advice.empty() ? Verdict::kOk : bad, text, advice});
}

// Of the socket, or else of the configuration.
std::optional<gid_t> wantedGroup(const std::string& configured) {
    struct stat info {};
    if (::stat(RunPaths::serviceSocket().c_str(), &info) == 0) return info.st_gid;
    const group* entry = configured.empty() ? nullptr : ::getgrnam(configured.c_str());
    return entry != nullptr ? std::optional(entry->gr_gid) : std::nullopt;
}

std::string infer(GraphSession& session) {
    session.open();
    client::TensorPool tensors(session.graph().inputSize, session.graph().outputSize);
    const auto slot = take(tensors.acquire());
    const client::InferResult result = session.run(*slot);
    session.close();
    return fmt::format("{} bytes there and {} back in {:.3f} ms", session.graph().inputSize,
                       session.graph().outputSize,
                       std::chrono::duration<double, std::milli>(result.resultLatency).count());
}

}  // namespace

ServiceLook checkSockets(client::Deadline deadline, Interruption& interruption,
                         DoctorReport& report) {
    constexpr const char* kCheck = "socket";
    ServiceLook look;
    auto connected = client::Client::connect({}, deadline);
    if (!connected) {
        report.add(failed(kCheck, connected.error().text()));
        return look;
    }
    const std::shared_ptr<client::Client> service = std::move(connected.value());
    interruption.setService(service);
    look.pid = service->servicePid();
    auto status = askStatus(*service, deadline);
    interruption.setService(nullptr);
    const std::string who = ProcessFacts(look.pid).describe();
    if (!status) {
        const std::string why = failed(kCheck, status.error().text()).text;
        report.add({kCheck, Verdict::kProblem, fmt::format("{} listens: {}", who, why),
                    "see its log; if it hangs, end it by force and start it again"});
        return look;
    }
    look.status = std::move(status.value());
    report.add({kCheck, Verdict::kOk,
                fmt::format("{} answers on {}, with {} devices", who, RunPaths::serviceSocket(),
                            look.status->deviceCount),
                ""});
    checkSnapshotSocket(deadline, report);
    return look;
}

void checkLocks(const ServiceLook& service, DoctorReport& report) {
    for (const std::string& path :
         {RunPaths::aliveMutex(), RunPaths::readyMutex(), RunPaths::startExitMutex()}) {
        checkLock(path, service, report);
    }
}

void checkGroup(const std::string& configured, DoctorReport& report) {
    constexpr const char* kCheck = "group";
    const UserGroups user = UserGroups::ofThisProcess();
    const auto group = wantedGroup(configured);
    if (::geteuid() == 0) {
        return report.add({kCheck, Verdict::kOk, "root needs none", ""});
    }
    if (!group) {
        return report.add({kCheck, Verdict::kWarning,
                           fmt::format("there is no socket, and no group \"{}\"", configured),
                           "set security_settings.user_group to a group that is there"});
    }
    const std::string name = UserGroups::nameOf(*group);
    const bool isMember = user.hasInSession(*group);
    report.add({kCheck, isMember ? Verdict::kOk : Verdict::kProblem,
                fmt::format("user {} is {} group {} in this session", user.user,
                            isMember ? "in" : "not in", name),
                isMember ? "" : user.adviceFor(*group)});
}

void checkInference(const GraphChoice& choice, bool isSimulated, Interruption& interruption,
                    DoctorReport& report) {
    constexpr const char* kCheck = "inference";
    if (choice.graph.empty() && !isSimulated) {
        return report.add({kCheck, Verdict::kWarning, "not tried, as accelerators need a graph",
                           "give one: kelmctl doctor --graph FILE"});
    }
    try {
        const std::vector<std::byte> any(16, std::byte{'k'});  // a simulated device takes all
        GraphSession session(choice,
                             choice.graph.empty() ? GraphFile("kelmctl doctor", any)
                                                  : GraphFile(choice.graph, choice.graphByPath),
                             interruption);
        report.add({kCheck, Verdict::kOk, infer(session), ""});
    } catch (const std::runtime_error& error) {
        if (interruption.signal() != 0) throw;
        report.add(failed(kCheck, error.what()));
    }
}

}  // namespace kelm::ctl
