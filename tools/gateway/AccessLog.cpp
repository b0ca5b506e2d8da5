#include "tools/gateway/AccessLog.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "utils/Utf8.h"

namespace kelm::gateway {

namespace {

constexpr size_t kMostWaiting = size_t{4} << 20;  // bytes
constexpr size_t kMostText = 256;                 // bytes of a text from outside

std::string bounded(const std::string& text) { return std::string(Utf8::head(text, kMostText)); }

// The line, with its end.
std::string accessLine(const RequestRecord& record, std::chrono::system_clock::time_point ended) {
    using std::chrono::milliseconds;
    constexpr double kMicros = 1e6;  // of a second
    const auto seconds = [](std::chrono::duration<double> time) {
        return std::round(time.count() * kMicros) / kMicros;
    };
    const auto whole = std::chrono::floor<std::chrono::seconds>(ended);
    const auto millis = std::chrono::duration_cast<milliseconds>(ended - whole).count();
    nlohmann::ordered_json line{
        {"schema", 1},
        {"time", fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z",
                             fmt::gmtime(std::chrono::system_clock::to_time_t(whole)), millis)},
        {"protocol", nameOf(record.protocol)},
        {"request_id", record.id},
        {"operation", record.operation},
        {"code", record.code},
        {"seconds", seconds(record.took)},
        {"bytes_in", record.bytesIn},
        {"bytes_out", record.bytesOut}};
    if (!record.model.empty()) line["model"] = bounded(record.model);
    if (record.isKnown) line["version"] = bounded(record.version);
    if (record.atService.count() > 0) line["service_seconds"] = seconds(record.atService);
    if (!record.error.empty()) line["error"] = bounded(record.error);
    // Names may be any bytes; the line is ASCII.
    return line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

AccessLog::AccessLog(std::string file)
    : m_path(std::move(file)),
      m_end(::eventfd(0, EFD_CLOEXEC)),
      m_file(open()),
      m_thread([this] { run(); }) {}

AccessLog::~AccessLog() {
    {
        MutexLock lock(m_mutex);
        m_isEnding = true;
    }
    m_changed.notifyAll();
    (void)::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

// A pipe without a reader must not keep it.
UniqueFd AccessLog::open() const {
    constexpr mode_t kMode = 0640;
    UniqueFd file(m_path == "-"
                      ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                      : ::open(m_path.c_str(),
                               O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, kMode));
    if (!file) {
        throw std::runtime_error("cannot open the access log " + m_path + ": " +
                                 std::strerror(errno));
    }
    return file;
}

void AccessLog::add(const RequestRecord& record) {
    const std::string line = accessLine(record, std::chrono::system_clock::now());
    {
        MutexLock lock(m_mutex);
        if (m_waiting.size() + line.size() > kMostWaiting) {
            ++m_lost;
            return;
        }
        m_waiting += line;
    }
    m_changed.notifyAll();
}

void AccessLog::reopen() {
    {
        MutexLock lock(m_mutex);
        m_isReopening = true;
    }
    m_changed.notifyAll();
}

uint64_t AccessLog::lost() const {
    MutexLock lock(m_mutex);
    return m_lost;
}

void AccessLog::run() {
    MutexLock lock(m_mutex);
    while (true) {
        while (m_waiting.empty() && !m_isReopening && !m_isEnding) m_changed.wait(m_mutex);
        const bool isReopening = std::exchange(m_isReopening, false);
        const std::string text = std::exchange(m_waiting, {});
        const bool isLast = m_isEnding;
        lock.unlock();
        const size_t written = write(text);  // what was told before the word to reopen
        if (isReopening) {
            try {
                m_file = open();
            } catch (const std::runtime_error&) {
                // The old one is better than none; what cannot be written is counted.
            }
        }
        lock.lock();
        m_lost += static_cast<uint64_t>(
            std::count(text.begin() + static_cast<ptrdiff_t>(written), text.end(), '\n'));
        if (isLast) return;
    }
}

size_t AccessLog::write(const std::string& text) const {
    size_t done = 0;
    while (done < text.size()) {
        // A pipe that is ready takes so much without a wait.
        pollfd fds[] = {{m_file.get(), POLLOUT, 0}, {m_end.get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) return done;
        if ((fds[0].revents & POLLOUT) == 0) {
            if (fds[0].revents != 0 || fds[1].revents != 0) return done;
            continue;
        }
        const ssize_t count = ::write(m_file.get(), text.data() + done,
                                      std::min<size_t>(text.size() - done, PIPE_BUF));
        if (count < 0 && errno != EINTR && errno != EAGAIN) return done;
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return done;
}

}  // namespace kelm::gateway
