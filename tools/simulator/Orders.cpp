#include "tools/simulator/Orders.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
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
    {"fail", true, 1, 3, 1},     {"lose", true, 1, 2, 1},     {"lie", true, 1, 2, 1},
    {"hang", true, 0, 1, 0},     {"slow", true, 1, 2, 1},     {"heat", false, 1, 2, -1},
    {"vanish", false, 0, 0, -1}, {"memory", false, 1, 1, -1}, {"patience", false, 1, 1, -1},
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
    if (const size_t option = order.function.find('('); option != std::string::npos) {
        order.option = std::atoi(order.function.c_str() + option + 1);
        order.function.resize(option);
    }
    std::copy(std::istream_iterator<long>(words), {}, std::back_inserter(order.numbers));
    const size_t count = order.numbers.size();
    const bool addressed =
        !order.device.empty() && (!known || verb->hasFunction == !order.function.empty());
    const bool isRead = order.function == "*" || order.function.starts_with("qxFifoRead");
    if (!known || !addressed || (order.verb == "lose" && !isRead) || !words.eof() ||
        count < verb->least || count > verb->most) {
        // A mistake is told at once: a test whose order does nothing would pass for the wrong
        // reason.
        std::cerr << "simulator: no order: " << line << std::endl;
        return std::nullopt;
    }
    const auto countAt = static_cast<size_t>(verb->countAt);
    if (verb->countAt >= 0 && countAt < count) order.remaining = order.numbers[countAt];
    if (order.verb == "fail" && count == verb->most) order.every = std::max(1L, order.numbers[2]);
    return order;
}

void Orders::refresh() {
    if (const auto lines = m_file.poll()) replaceUnsafe(*lines);
}

void Orders::replace(const std::vector<std::string>& lines) {
    MutexLock lock(m_mutex);
    replaceUnsafe(lines);
}

void Orders::replaceUnsafe(const std::vector<std::string>& lines) {
    std::vector<Order> orders;
    for (const std::string& line : lines) {
        auto order = parse(line);
        if (!order) continue;
        // An order that stays in the file goes on with what is left of its count.
        const auto old = std::ranges::find(m_orders, line, &Order::line);
        if (old != m_orders.end()) order = *old;
        orders.push_back(std::move(*order));
    }
    m_orders = std::move(orders);
}

// Counted only if all the rest fits: `seen` tells which of the calls it could concern this one is.
bool Orders::Order::takeCall(const std::string& name, const std::string& called, int calledOption) {
    if (function != "*" && function != called) return false;
    if (option != kNoOption && option != calledOption) return false;
    if (!concerns(name) || remaining == 0 || ++seen % every != 0) return false;
    if (remaining > 0) --remaining;
    return true;
}

// All orders that fit are counted; of several failures the first gives the status.
Orders::Delay Orders::take(const std::string& device, const char* function, int option) {
    Delay delay;
    MutexLock lock(m_mutex);
    refresh();
    for (Order& order : m_orders) {
        if (order.verb == "lose" || order.verb == "lie") continue;
        if (!order.takeCall(device, function, option)) continue;
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

int Orders::takeNumber(const char* verb, const std::string& device, const char* function,
                       int option) {
    MutexLock lock(m_mutex);
    refresh();
    for (Order& order : m_orders) {
        if (order.verb != verb || !order.takeCall(device, function, option)) continue;
        return static_cast<int>(order.numbers[0]);
    }
    return 0;
}

int Orders::lose(const std::string& device, const char* function) {
    return takeNumber("lose", device, function, kNoOption);
}

unsigned int Orders::lie(const std::string& device, const char* function, int option) {
    return static_cast<unsigned int>(takeNumber("lie", device, function, option));
}

// Waits without the mutex, so that other calls and a change of the orders come through meanwhile.
int Orders::apply(const std::string& device, const char* function, int option) {
    const Delay delay = take(device, function, option);
    if (delay.millis > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay.millis));
    if (!delay.hang.empty()) {
        tellEvent("hang " + device + " " + function);
        while (stands(delay.hang)) std::this_thread::sleep_for(kHangPoll);
    }
    return delay.status;
}

// The first line that fits and has such a number; the others are passed over.
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
