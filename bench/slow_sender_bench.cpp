// What do clients lose to one that sends slowly? Three of them run on devices of 1 ms, first alone,
// then beside one that sends a byte every 100 ms, then beside one that sends a graph of 200 MB at
// 20 MB/s; three times in turn. Prints the median rate of each part and its ratio to the first one.
//
//   slow_sender_bench [SECONDS]        seconds for each part, 12 by default, enough for the 200 MB

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchService.h"
#include "tests/wire/WireClient.h"

namespace {

using kelm::bench::BenchService;
using std::chrono::milliseconds;

struct Sender {
    const char* name;
    size_t pieceBytes;
    milliseconds pause;  // between two pieces
};
constexpr Sender kSenders[] = {{"no other client", 0, milliseconds(0)},
                               {"1 byte every 100 ms", 1, milliseconds(100)},
                               {"200 MB at 20 MB/s", 200'000, milliseconds(10)}};
constexpr kelm::bench::Load kLoad{
    .clients = 3, .depth = 4, .cpus = kelm::bench::Cpus::kAll, .loadTensorMs = 1, .getResultMs = 1};
constexpr int kRounds = 3;
constexpr size_t kGraphBytes = 200'000'000;

double measureBeside(BenchService& service, const Sender& sender, double seconds) {
    kelm::WireClient slow(service.socket());
    slow.setManner({.piece = sender.pieceBytes, .pause = sender.pause});
    std::thread thread;
    if (sender.pieceBytes != 0) {
        // As much of it as the time allows.
        thread = std::thread([&] { slow.sendCreateGraph({std::string(kGraphBytes, 'g')}); });
    }
    const double rate = service.measure(seconds).speed.requestsPerSecond;
    slow.interrupt();
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
    BenchService service(kLoad);
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
