// What do clients lose to one that sends slowly? Three of them run on devices of 1 ms, first alone,
// then beside one that sends a byte every 100 ms, then beside one that sends a graph of 200 MB at
// 20 MB/s; three times in turn. Prints the median rate of each part and its ratio to the first one.
//
//   slow_sender_bench [SECONDS]        seconds for each part, 12 by default, enough for the 200 MB

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchService.h"
#include "protocol/src/KelmMessage.h"
#include "utils/UniqueFd.h"

namespace {

using kelm::bench::BenchService;
using std::chrono::milliseconds;

struct Sender {
    const char* name;
    size_t pieceBytes;
    milliseconds pause;  // between two pieces
};
constexpr Sender kSenders[] = {{"nobody", 0, milliseconds(100)},
                               {"1 byte every 100 ms", 1, milliseconds(100)},
                               {"200 MB at 20 MB/s", 200'000, milliseconds(10)}};
constexpr int kRounds = 3;
constexpr size_t kGraphBytes = 200'000'000;

kelm::UniqueFd connectTo(const std::string& path) {
    kelm::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        std::perror("connect");
    }
    return socket;
}

// A request for a graph whose block is `kGraphBytes` long, as far as the time goes.
void sendSlowly(const std::string& path, const Sender& sender, const std::atomic<bool>& stop) {
    kelm::KelmMsgReqCreateGraph request = {};
    request.head.base.type = kelm::KELM_MESSAGE_CREATE_GRAPH_REQ;
    request.head.base.size = sizeof(request);
    request.head.base.dataNum = 1;
    request.head.base.dataSize[0] = kGraphBytes;
    std::vector<char> bytes(sizeof(request) + kGraphBytes, 'g');
    std::copy_n(reinterpret_cast<const char*>(&request), sizeof(request), bytes.data());
    const kelm::UniqueFd socket = connectTo(path);
    size_t sent = 0;
    auto next = std::chrono::steady_clock::now();
    while (!stop && sent < bytes.size()) {
        const size_t piece = std::min(sender.pieceBytes, bytes.size() - sent);
        const ssize_t count = ::send(socket.get(), bytes.data() + sent, piece, MSG_NOSIGNAL);
        if (count < 0) return std::perror("send");
        sent += static_cast<size_t>(count);
        next += sender.pause;
        std::this_thread::sleep_until(next);
    }
}

double measureBeside(BenchService& service, const Sender& sender, double seconds) {
    std::atomic<bool> stop{false};
    std::thread thread;
    if (sender.pieceBytes != 0) {
        thread = std::thread([&] { sendSlowly(service.socket(), sender, stop); });
    }
    const double rate = service.measure({3, 4}, seconds).requestsPerSecond;
    stop = true;
    if (thread.joinable()) thread.join();
    return rate;
}

double median(std::vector<double>& values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 12.0;
    BenchService service(1);
    std::vector<double> rates[std::size(kSenders)];
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < std::size(kSenders); ++i) {
            rates[i].push_back(measureBeside(service, kSenders[i], seconds));
        }
    }
    std::printf("%-22s %12s %8s\n", "beside", "results/s", "ratio");
    const double alone = median(rates[0]);
    for (size_t i = 0; i < std::size(kSenders); ++i) {
        const double rate = median(rates[i]);
        std::printf("%-22s %12.0f %8.3f\n", kSenders[i].name, rate, rate / alone);
    }
    return 0;
}
