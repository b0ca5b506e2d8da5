#include "tools/kelmctl/DoctorMachine.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "client/SegmentName.h"
#include "config/AcceleratorLibraries.h"
#include "tools/kelmctl/ConfigCheck.h"
#include "tools/kelmctl/PortArrivals.h"
#include "tools/kelmctl/ProcessFacts.h"
#include "utils/RunPaths.h"

namespace kelm::ctl {

namespace {

constexpr const char* kUsbDevices = "/sys/bus/usb/devices";
constexpr const char* kSharedMemory = "/dev/shm";
constexpr uint64_t kMegabyte = 1024 * 1024;
// A connection takes a descriptor, and so does each tensor of a task in flight.
constexpr uint64_t kFewDescriptors = 4096;

std::string readWord(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string word;
    file >> word;
    return word;
}

struct UsbId {
    unsigned long vendor = 0;
    unsigned long product = 0;
    bool operator==(const UsbId&) const = default;
};

// 0 for what is no number, as in the service.
unsigned long readHexadecimal(const std::string& text) {
    try {
        return std::stoul(text, nullptr, 16);
    } catch (const std::logic_error&) {
        return 0;
    }
}

// Out of the device's own descriptor, as the service's USB library reads it.
UsbId readUsbId(const std::filesystem::path& device) {
    constexpr size_t kVendor = 8;  // bytes; two for each number, the lower one first
    std::ifstream file(device / "descriptors", std::ios::binary);
    std::array<unsigned char, kVendor + 4> bytes{};
    file.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
    const auto number = [&](size_t at) { return bytes[at] + 0x100UL * bytes[at + 1]; };
    return {number(kVendor), number(kVendor + 2)};
}

// By the mode; an access control list for the service's account is not looked at.
bool mayUse(const std::string& node, pid_t service) {
    const ProcessFacts process(service);
    const auto user = service > 0 ? process.user() : std::nullopt;
    if (!user || *user == ::geteuid()) return ::access(node.c_str(), R_OK | W_OK) == 0;
    struct stat info {};
    if (::stat(node.c_str(), &info) != 0) return false;
    const auto allows = [&](mode_t bits) { return (info.st_mode & bits) == bits; };
    const std::vector<gid_t> groups = process.groups();
    if (*user == 0) return true;
    if (*user == info.st_uid) return allows(S_IRUSR | S_IWUSR);
    if (std::ranges::count(groups, info.st_gid) > 0) return allows(S_IRGRP | S_IWGRP);
    return allows(S_IROTH | S_IWOTH);
}

void checkNode(const std::filesystem::path& device, pid_t service, DoctorReport& report) {
    const std::string node = fmt::format("/dev/bus/usb/{:0>3}/{:0>3}", readWord(device / "busnum"),
                                         readWord(device / "devnum"));
    std::string port = device.filename();
    std::ranges::replace(port, '-', '.');  // as the service names its devices
    if (::access(node.c_str(), F_OK) != 0) {
        report.add({"device", Verdict::kProblem, fmt::format("port {} has no {}", port, node),
                    "start udev, or mount /dev/bus/usb into the container"});
    } else if (!mayUse(node, service)) {
        report.add({"device", Verdict::kProblem,
                    fmt::format("port {}: {} may not read and write {}", port,
                                service > 0 ? "the service's account" : "this user", node),
                    "give its group rights to it with a udev rule, and plug it in again"});
    } else {
        report.add({"device", Verdict::kOk, fmt::format("port {}: {}", port, node), ""});
    }
}

// A device that the service resets once in a while is no sign; one that comes again and again is.
void checkArrivals(const UsbId& wanted, DoctorReport& report) {
    constexpr const char* kCheck = "port";
    constexpr int kMany = 3;
    constexpr std::chrono::hours kLookBack{1};
    const auto log = readKernelLog();
    if (!log) {
        return report.add(
            {kCheck, Verdict::kOk,
             "whether devices keep leaving is not told: this user may not read the kernel's log",
             ""});
    }
    // The log counts as this clock does, from the start of the machine.
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto since =
        std::chrono::duration_cast<std::chrono::microseconds>(std::max(now - kLookBack, now * 0));
    const auto counts =
        countArrivals(*log, wanted.vendor, wanted.product, static_cast<uint64_t>(since.count()));
    bool isQuiet = true;
    for (const auto& [port, count] : counts) {
        if (count < kMany) continue;
        isQuiet = false;
        report.add(
            {kCheck, Verdict::kWarning,
             fmt::format("a device has come to port {} {} times within an hour", port, count),
             "look at its power and cable: try another cable, and a powered hub with fewer "
             "devices; if it goes on at another port, the device is at fault"});
    }
    if (isQuiet) report.add({kCheck, Verdict::kOk, "no device keeps coming and leaving", ""});
}

void checkLeftOvers(DoctorReport& report) {
    uint64_t bytes = 0;
    size_t foreign = 0;
    const auto objects = client::SegmentName::listThoseOfDeadProcesses();
    for (const client::SegmentName::LeftOver& object : objects) {
        bytes += object.bytes;
        if (object.owner != ::geteuid()) ++foreign;
    }
    if (objects.empty()) {
        return report.add({"stale segments", Verdict::kOk, "none", ""});
    }
    report.add({"stale segments", Verdict::kWarning,
                fmt::format("{} of processes that have died, {} MB, {} of them of other users",
                            objects.size(), (bytes + kMegabyte - 1) / kMegabyte, foreign),
                "each user's go with that user's next kelmctl infer; else remove them as root: "
                "/dev/shm/kelm-*"});
}

}  // namespace

void checkConfiguration(const std::vector<ConfigFile>& files, DoctorReport& report) {
    const size_t count = checkConfigFiles(files).size();
    if (count == 0) {
        return report.add({"configuration", Verdict::kOk,
                           fmt::format("nothing to say about {} files", files.size()), ""});
    }
    report.add({"configuration", Verdict::kWarning, fmt::format("{} findings", count),
                "see kelmctl config check"});
}

void checkRunDirectory(DoctorReport& report) {
    constexpr const char* kCheck = "run directory";
    const std::string path = RunPaths::directory();
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return report.add({kCheck, Verdict::kProblem,
                           fmt::format("{}: {}", path, std::strerror(errno)),
                           "make it, or set KELM_RUN_DIR to the directory of the service"});
    }
    if (!S_ISDIR(info.st_mode)) {
        return report.add({kCheck, Verdict::kProblem, path + " is no directory",
                           "take it away, or set KELM_RUN_DIR to a directory"});
    }
    if (::access(path.c_str(), X_OK) != 0) {
        return report.add({kCheck, Verdict::kProblem, "this user may not enter " + path,
                           "give the user rights to it, or set KELM_RUN_DIR to another one, here "
                           "and for the service"});
    }
    if ((info.st_mode & S_IWOTH) != 0 && (info.st_mode & S_ISVTX) == 0) {
        return report.add({kCheck, Verdict::kWarning,
                           "everybody may take away what the service puts into " + path,
                           "run: chmod +t " + path});
    }
    report.add({kCheck, Verdict::kOk, path, ""});
}

void checkLibraries(DoctorReport& report) {
    for (const char* name : {kTevoLibraryName, kIonLibraryName}) {
        if (void* library = ::dlopen(name, RTLD_LAZY | RTLD_LOCAL)) {
            ::dlclose(library);
            report.add({"library", Verdict::kOk, fmt::format("{} can be loaded", name), ""});
        } else {
            report.add({"library", Verdict::kProblem, ::dlerror(),
                        "install it, or set LD_LIBRARY_PATH to its directory, here and for the "
                        "service"});
        }
    }
}

size_t checkDeviceNodes(const std::string& vendor, const std::string& product, pid_t service,
                        DoctorReport& report) {
    const UsbId wanted{readHexadecimal(vendor), readHexadecimal(product)};
    std::error_code error;
    size_t count = 0;
    for (std::filesystem::directory_iterator at(kUsbDevices, error), end; !error && at != end;
         at.increment(error)) {
        if (readUsbId(at->path()) != wanted) continue;
        ++count;
        checkNode(at->path(), service, report);
    }
    if (error) {
        report.add({"device", Verdict::kProblem,
                    fmt::format("no USB bus can be seen: {}: {}", kUsbDevices, error.message()),
                    "load the USB drivers, or mount /sys and /dev/bus/usb into the container"});
    } else if (count == 0) {
        report.add({"device", Verdict::kProblem,
                    fmt::format("no accelerator with the USB id {:04x}:{:04x} is on the bus",
                                wanted.vendor, wanted.product),
                    "plug one in, look at its power and cable, and compare device_settings with "
                    "lsusb; for simulated devices set fake_device_settings.enable_fake_device to "
                    "true"});
    }
    checkArrivals(wanted, report);
    return count;
}

void checkSharedMemory(DoctorReport& report) {
    constexpr const char* kCheck = "shared memory";
    struct statfs info {};
    if (::statfs(kSharedMemory, &info) != 0) {
        return report.add({kCheck, Verdict::kProblem,
                           fmt::format("{}: {}", kSharedMemory, std::strerror(errno)),
                           "mount a tmpfs there"});
    }
    const uint64_t megabytes = info.f_bavail * static_cast<uint64_t>(info.f_bsize) / kMegabyte;
    const std::string text = fmt::format("{} has {} MB free", kSharedMemory, megabytes);
    if (::access(kSharedMemory, W_OK | X_OK) != 0) {
        report.add({kCheck, Verdict::kProblem,
                    fmt::format("this user may not write to {}", kSharedMemory),
                    fmt::format("run as root: chmod 1777 {}", kSharedMemory)});
    } else if (info.f_type != TMPFS_MAGIC) {
        report.add({kCheck, Verdict::kWarning, fmt::format("{} is no tmpfs", kSharedMemory),
                    "mount one there: tensors would go to the disk"});
    } else if (megabytes < 64) {
        report.add({kCheck, Verdict::kWarning, text,
                    "remove what is not used, or mount it larger: mount -o remount,size=1G "
                    "/dev/shm"});
    } else {
        report.add({kCheck, Verdict::kOk, text, ""});
    }
    checkLeftOvers(report);
}

// The service lifts its limit to the hard one when it starts.
void checkDescriptorLimit(pid_t service, DoctorReport& report) {
    constexpr const char* kCheck = "descriptor limit";
    const ProcessFacts process(service);
    rlimit own{};
    if (service <= 0) (void)::getrlimit(RLIMIT_NOFILE, &own);
    const auto limit =
        service > 0 ? process.descriptorLimit() : std::optional<uint64_t>(own.rlim_max);
    if (!limit) {
        return report.add({kCheck, Verdict::kWarning, process.describe() + " cannot be looked at",
                           "try as its user or root"});
    }
    const auto used = service > 0 ? process.descriptorCount() : std::nullopt;
    const std::string text =
        used ? fmt::format("{} of {} in use", *used, *limit) : fmt::format("{}", *limit);
    constexpr uint64_t kNearlyAll = 80;
    const bool isFull = used && *used * 100 > *limit * kNearlyAll;
    if (*limit >= kFewDescriptors && !isFull) {
        return report.add({kCheck, Verdict::kOk, text, ""});
    }
    report.add({kCheck, Verdict::kWarning, text,
                fmt::format("start the service with {} or more: ulimit -Hn, or LimitNOFILE= of its "
                            "unit",
                            std::max(kFewDescriptors, isFull ? *limit * 2 : 0))});
}

}  // namespace kelm::ctl
