#include "tools/simulator/Orders.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>
#include <utility>

namespace kelm::simulator {

namespace {

constexpr std::chrono::milliseconds kHangPoll{5};

struct Verb {
    const char* word;
    bool hasFunction;
    size_t least;  // numbers
    size_t most;
    int countAt;  // which of the numbers is a count of calls, -1 for none
};

constexpr Verb kVerbs[] = {
    {"fail", true, 1, 2, 1},   {"hang", true, 0, 1, 0},     {"slow", true, 1, 2, 1},
    {"heat", false, 1, 2, -1}, {"vanish", false, 0, 0, -1}, {"memory", false, 1, 1, -1},
};

}  // namespace

Orders& Orders::instance() {
    static Orders& orders = *new Orders(simulatorFile("control"));
    return orders;
}

std::optional<Orders::Order> Orders::parse(const std::string& line) {
    Order order;
    order.line = line;
    std::istringstream words(line.substr(0, line.find('#')));
    if (!(words >> order.verb)) return std::nullopt;  // a comment
    const auto* verb = std::ranges::find(kVerbs, order.verb, &Verb::word);
    const bool known = verb != std::end(kVerbs);
    words >> order.device;
    if (known && verb->hasFunction) words >> order.function;
    std::copy(std::istream_iterator<long>(words), {}, std::back_inserter(order.numbers));
    const size_t count = order.numbers.size();
    const bool addressed =
        !order.device.empty() && (!known || verb->hasFunction == !order.function.empty());
    if (!known || !addressed || !words.eof() || count < verb->least || count > verb->most) {
        std::cerr << "simulator: no order: " << line << std::endl;
        return std::nullopt;
    }
    const auto countAt = static_cast<size_t>(verb->countAt);
    if (verb->countAt >= 0 && countAt < count) order.remaining = order.numbers[countAt];
    return order;
}

void Orders::refresh() {
    const auto lines = m_file.poll();
    if (!lines) return;
    std::vector<Order> orders;
    for (const std::string& line : *lines) {
        auto order = parse(line);
        if (!order) continue;
        const auto old = std::ranges::find(m_orders, line, &Order::line);
        if (old != m_orders.end()) order->remaining = old->remaining;
        orders.push_back(std::move(*order));
    }
    m_orders = std::move(orders);
}

Orders::Delay Orders::take(const std::string& device, const char* function) {
    Delay delay;
    MutexLock lock(m_mutex);
    refresh();
    for (Order& order : m_orders) {
        if (order.function != "*" && order.function != function) continue;
        if (!order.concerns(device) || order.remaining == 0) continue;
        if (order.remaining > 0) --order.remaining;
        if (order.verb == "slow") delay.millis += order.numbers[0];
        if (order.verb == "hang") delay.hang = order.line;
        if (order.verb == "fail" && delay.status == 0) {
            delay.status = static_cast<int>(order.numbers[0]);
        }
    }
    return delay;
}

bool Orders::stands(const std::string& line) {
    MutexLock lock(m_mutex);
    refresh();
    return std::ranges::find(m_orders, line, &Order::line) != m_orders.end();
}

int Orders::apply(const std::string& device, const char* function) {
    const Delay delay = take(device, function);
    if (delay.millis > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay.millis));
    if (!delay.hang.empty()) {
        tellEvent("hang " + device + " " + function);
        while (stands(delay.hang)) std::this_thread::sleep_for(kHangPoll);
    }
    return delay.status;
}

std::optional<long> Orders::number(const char* verb, const std::string& device, size_t index) {
    MutexLock lock(m_mutex);
    refresh();
    for (const Order& order : m_orders) {
        if (order.verb != verb || !order.concerns(device)) continue;
        if (index < order.numbers.size()) return order.numbers[index];
    }
    return std::nullopt;
}

bool Orders::isVanished(const std::string& device) {
    MutexLock lock(m_mutex);
    refresh();
    return std::ranges::any_of(m_orders, [&device](const Order& order) {
        return order.verb == "vanish" && order.concerns(device);
    });
}

}  // namespace kelm::simulator
