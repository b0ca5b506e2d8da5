// kelm-infer-load: a client of the Open Inference Protocol over HTTP that checks every result bit
// by bit, for demonstrations and measurements. One thread, binary tensors; either each connection
// sends its next request at once, or requests come at a rate, at random moments, whoever is free
// takes them, and their time counts from that moment. Ends with one object of JSON: the requests,
// the failures by their kind, latencies in ms, and how many requests each node answered.
//
// The exit status is 0 if there was an answer, none was wrong and none failed.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/simulator/Model.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::simulator {

namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;

struct Options {
    uint16_t port = 0;
    std::string model = "model";
    std::string graph;
    size_t connections = 8;
    double seconds = 10.0;
    double rate = 0.0;  // a second; 0: as fast as answers come
};

// What came of the requests.
struct Tally {
    std::vector<double> latencies;  // ms, of the right answers
    std::map<std::string, uint64_t> failures;
    std::map<std::string, uint64_t> nodes;
};

// Requests of a model, each with another input.
class Requests {
 public:
    Requests(const Model& model, const std::string& name)
        : m_model(model), m_output(model.outputSize) {
        const std::string size = std::to_string(model.inputSize);
        const std::string json = R"({"inputs":[{"name":"i","datatype":"UINT8","shape":[)" + size +
                                 R"(],"parameters":{"binary_data_size":)" + size +
                                 R"(}}],"parameters":{"binary_data_output":true}})";
        m_head = "POST /v2/models/" + name +
                 "/infer HTTP/1.1\r\nHost: cluster\r\nContent-Length: " +
                 std::to_string(json.size() + model.inputSize) +
                 "\r\nInference-Header-Content-Length: " + std::to_string(json.size()) +
                 "\r\n\r\n" + json;
        m_text = m_head + std::string(model.inputSize, '\0');
        m_random.seed(1);
    }
    // Valid until the next one.
    const std::string& make(uint64_t& seed) {
        seed = m_random();
        fill(seed);
        return m_text;
    }
    bool isRight(uint64_t seed, std::string_view output) {
        fill(seed);
        const auto* const input = reinterpret_cast<const uint8_t*>(m_text.data() + m_head.size());
        m_model.infer({input, m_model.inputSize}, m_output);
        return output.size() == m_output.size() &&
               std::memcmp(output.data(), m_output.data(), output.size()) == 0;
    }

 private:
    void fill(uint64_t seed) {
        const size_t count = std::min<size_t>(sizeof(seed), m_model.inputSize);
        std::memcpy(m_text.data() + m_head.size(), &seed, count);
    }

    const Model m_model;
    std::string m_head;
    std::string m_text;
    std::vector<uint8_t> m_output;
    std::mt19937_64 m_random;
};

// One connection, made anew when it was closed; at most one request at a time.
class Lane : public NonCopyable {
 public:
    Lane(const Options& options, Requests& requests, Tally& tally, int poller)
        : m_options(options), m_requests(requests), m_tally(tally), m_poller(poller) {}

    bool isBusy() const { return m_begun.has_value(); }
    void send(Clock::time_point due) {
        m_begun = due;
        m_read.clear();
        const std::string& text = m_requests.make(m_seed);
        if (m_socket && write(text)) return;
        m_socket.reset();  // closed between two requests
        connect();
        if (!m_socket || !write(text)) fail("no connection");
    }
    // More came, or the end.
    void onReadable() {
        char bytes[16384];
        const ssize_t count = ::recv(m_socket.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (count <= 0) {
            m_socket.reset();
            if (isBusy()) fail(m_read.empty() ? "closed without an answer" : "cut off");
            return;
        }
        m_read.append(bytes, static_cast<size_t>(count));
        if (isBusy()) readAnswer();
    }

 private:
    void connect() {
        m_socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_options.port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) !=
            0) {
            m_socket.reset();
            return;
        }
        const int on = 1;
        ::setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = this;
        ::epoll_ctl(m_poller, EPOLL_CTL_ADD, m_socket.get(), &event);
    }
    bool write(std::string_view text) const {
        while (!text.empty()) {
            const ssize_t count = ::send(m_socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
            if (count <= 0) return false;
            text.remove_prefix(static_cast<size_t>(count));
        }
        return true;
    }
    void fail(const std::string& why) {
        ++m_tally.failures[why];
        m_begun.reset();
    }
    // The value of a header, whose name is given as it is written.
    std::string_view header(std::string_view head, std::string_view name) const {
        size_t at = head.find("\r\n" + std::string(name) + ": ");
        if (at == std::string_view::npos) return {};
        at += name.size() + 4;
        return head.substr(at, head.find('\r', at) - at);
    }
    static size_t number(std::string_view text) {
        size_t value = 0;
        std::from_chars(text.data(), text.data() + text.size(), value);
        return value;
    }
    void readAnswer() {
        const size_t end = m_read.find("\r\n\r\n");
        if (end == std::string::npos) return;
        const std::string_view head(m_read.data(), end + 2);
        const std::string lower = [&] {
            std::string text(head);
            std::ranges::transform(text, text.begin(),
                                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; });
            return text;
        }();
        const size_t length = number(header(lower, "content-length"));
        if (m_read.size() < end + 4 + length) return;
        const std::string_view body = std::string_view(m_read).substr(end + 4, length);
        const std::string status(head.substr(9, 3));
        const std::string node(header(lower, "x-node"));
        if (!node.empty()) ++m_tally.nodes[node];
        if (status != "200") {
            fail(status + " " + std::string(body.substr(0, 160)));
        } else if (const size_t json = number(header(lower, "inference-header-content-length"));
                   json > body.size() || !m_requests.isRight(m_seed, body.substr(json))) {
            fail("wrong");
        } else {
            m_tally.latencies.push_back(Millis(Clock::now() - *m_begun).count());
            m_begun.reset();
        }
        m_read.clear();
        if (header(lower, "connection") == "close") m_socket.reset();
    }

    const Options& m_options;
    Requests& m_requests;
    Tally& m_tally;
    const int m_poller;
    UniqueFd m_socket;
    std::optional<Clock::time_point> m_begun;
    uint64_t m_seed = 0;
    std::string m_read;
};

// When requests come, if they come at a rate.
class Arrivals {
 public:
    explicit Arrivals(double rate) : m_gap(rate) {}
    Clock::time_point next() const { return m_next; }
    void step() {
        m_next += std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(m_gap(m_random)));
    }

 private:
    std::mt19937_64 m_random{2};
    std::exponential_distribution<double> m_gap;
    Clock::time_point m_next = Clock::now();
};

void run(const Options& options, Requests& requests, Tally& tally) {
    const UniqueFd poller(::epoll_create1(EPOLL_CLOEXEC));
    std::vector<std::unique_ptr<Lane>> lanes;
    for (size_t i = 0; i < options.connections; ++i) {
        lanes.push_back(std::make_unique<Lane>(options, requests, tally, poller.get()));
    }
    constexpr std::chrono::seconds kPatience(30);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(options.seconds));
    std::optional<Arrivals> arrivals;
    if (options.rate > 0) arrivals.emplace(options.rate);
    std::deque<Clock::time_point> due;
    const auto isBusy = [](const auto& lane) { return lane->isBusy(); };
    while (Clock::now() < end + kPatience) {
        const auto now = Clock::now();
        const bool isOver = now >= end;
        for (; arrivals && arrivals->next() <= std::min(now, end); arrivals->step()) {
            due.push_back(arrivals->next());
        }
        for (auto& lane : lanes) {
            if (lane->isBusy()) continue;
            if (arrivals && !due.empty()) {
                lane->send(due.front());
                due.pop_front();
            } else if (!arrivals && !isOver) {
                lane->send(now);
            }
        }
        if (isOver && due.empty() && std::ranges::none_of(lanes, isBusy)) return;
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(
            arrivals && !isOver ? arrivals->next() - Clock::now() : std::chrono::milliseconds(10));
        epoll_event events[64];
        const int count = ::epoll_wait(poller.get(), events, 64,
                                       std::clamp<int>(static_cast<int>(wait.count()), 0, 10));
        for (int i = 0; i < count; ++i) static_cast<Lane*>(events[i].data.ptr)->onReadable();
    }
    tally.failures["no answer"] += static_cast<uint64_t>(std::ranges::count_if(lanes, isBusy));
}

nlohmann::json report(Tally& tally, double seconds) {
    auto& all = tally.latencies;
    std::ranges::sort(all);
    const auto percentile = [&](double share) {
        if (all.empty()) return 0.0;
        return all[static_cast<size_t>(share * static_cast<double>(all.size() - 1))];
    };
    uint64_t failed = 0;
    for (const auto& [why, count] : tally.failures) failed += count;
    return {{"schema", 1},
            {"requests", all.size() + failed},
            {"failed", failed},
            {"failures", tally.failures},
            {"per_second", static_cast<double>(all.size()) / seconds},
            {"p50_ms", percentile(0.5)},
            {"p99_ms", percentile(0.99)},
            {"max_ms", percentile(1.0)},
            {"nodes", tally.nodes}};
}

}  // namespace

}  // namespace kelm::simulator

int main(int argc, char** argv) {
    using namespace kelm::simulator;
    CLI::App app("A client of the Open Inference Protocol that checks every result");
    Options options;
    app.add_option("--port", options.port, "on the loopback")->required();
    app.add_option("--graph", options.graph, "file of the simulated graph behind the model")
        ->required();
    app.add_option("--model", options.model, "its name")->capture_default_str();
    app.add_option("--connections", options.connections, "requests at a time")
        ->check(CLI::Range(1, 4096))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "how long")->capture_default_str();
    app.add_option("--rate", options.rate, "requests a second; 0: as fast as answers come")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    std::ifstream file(options.graph, std::ios::binary);
    const std::string blob{std::istreambuf_iterator<char>(file), {}};
    const auto model = Model::parse({reinterpret_cast<const uint8_t*>(blob.data()), blob.size()});
    if (!model) {
        std::cerr << "kelm-infer-load: " + options.graph + " is no graph of the simulator\n";
        return 2;
    }
    Requests requests(*model, options.model);
    Tally tally;
    const auto begun = Clock::now();
    run(options, requests, tally);
    const std::chrono::duration<double> took = Clock::now() - begun;
    std::cout << report(tally, std::min(took.count(), options.seconds)).dump() + "\n";
    return !tally.latencies.empty() && tally.failures.empty() ? 0 : 1;
}
