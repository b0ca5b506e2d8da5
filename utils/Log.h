#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <string>

#include "utils/Mutex.h"
#include "utils/Singleton.h"
#include "utils/StringHelper.h"

namespace kelm {

// Levels are single bits, so a set of levels is a mask.
enum LogLevel : uint32_t {
    LOG_LEVEL_PROC = 0x01,  // step by step; switched on per component
    LOG_LEVEL_DEBUG = 0x02,
    LOG_LEVEL_INFO = 0x04,
    LOG_LEVEL_WARN = 0x08,
    LOG_LEVEL_FREQ = 0x10,  // one line a task; switched on per component
    LOG_LEVEL_ERROR = 0x40,
    LOG_LEVEL_FATAL = 0x80,
};

// The terminal sequences around a line of a level; empty for most.
const char* colorBegin(LogLevel level);
const char* colorEnd(LogLevel level);

// The one log: lines on the standard output stream, errors and warnings coloured; or, for the
// system's journal, each line behind its priority, "<3>" for errors to "<7>" for traces.
//
// Threads: any. Locks: m_mutex is a leaf.
class Log : public Singleton<Log> {
 public:
    virtual ~Log() = default;

    // Replaces the mask of enabled levels; 0 silences everything.
    void setLogLevel(unsigned int mask) { m_level.store(mask, std::memory_order_relaxed); }
    // Priorities in place of colours. Called before other threads are started.
    void setPriorities(bool on) EXCLUDES(m_mutex);
    // Accepted for older set-ups; has no effect.
    void setLog4cppInitFile(const std::string& path);

    bool isEnabled(LogLevel level) const {
        return (m_level.load(std::memory_order_relaxed) & level) != 0;
    }

    // Writes one line. `object` may be null. Without `enabled` or outside the mask nothing is
    // formatted and no lock is taken.
    template <class... Args>
    void doLog(bool enabled, LogLevel level, const char* tag, const char* file, int64_t line,
               const char* object, const char* format, const Args&... args) {
        if (!enabled || !isEnabled(level)) return;
        const std::array<FormatArg, sizeof...(Args)> values{FormatArg(args)...};
        writeLine(level, tag, file, line, object, format,
                  std::span<const FormatArg>(values.data(), values.size()));
    }

 private:
    void writeLine(LogLevel level, const char* tag, const char* file, int64_t line,
                   const char* object, const char* format, std::span<const FormatArg> args)
        EXCLUDES(m_mutex);
    std::string makeLine(LogLevel level, const char* tag, const char* file, int64_t line,
                         const char* object, const char* format,
                         std::span<const FormatArg> args) const REQUIRES(m_mutex);

    Mutex m_mutex;
    std::string m_prefix GUARDED_BY(m_mutex);
    std::string m_suffix GUARDED_BY(m_mutex);
    bool m_priorities GUARDED_BY(m_mutex) = false;
    // Atomic: the gate reads it without the lock, and a racing change is harmless.
    std::atomic<uint32_t> m_level{0xCC};
};

}  // namespace kelm

// The arguments are not evaluated unless the line is written.
#define KELM_LOG(enabled, level, tag, object, ...)                                      \
    do {                                                                                \
        if ((enabled) && ::kelm::Log::instance().isEnabled(level)) {                    \
            ::kelm::Log::instance().doLog(true, level, tag, __FILE__, __LINE__, object, \
                                          __VA_ARGS__);                                 \
        }                                                                               \
    } while (false)

#define LOG_PROC(enabled, ...) \
    KELM_LOG(enabled, ::kelm::LOG_LEVEL_PROC, "PROC", nullptr, __VA_ARGS__)
#define LOG_FREQ(enabled, ...) \
    KELM_LOG(enabled, ::kelm::LOG_LEVEL_FREQ, "FREQ", nullptr, __VA_ARGS__)
#define LOG_DEBUG(...) KELM_LOG(true, ::kelm::LOG_LEVEL_DEBUG, "DEBUG", nullptr, __VA_ARGS__)
#define LOG_INFO(...) KELM_LOG(true, ::kelm::LOG_LEVEL_INFO, "INFO", nullptr, __VA_ARGS__)
#define LOG_WARN(...) KELM_LOG(true, ::kelm::LOG_LEVEL_WARN, "WARN", nullptr, __VA_ARGS__)
#define LOG_ERROR(...) KELM_LOG(true, ::kelm::LOG_LEVEL_ERROR, "ERROR", nullptr, __VA_ARGS__)

// The same with the name of the object that logs.
#define LOG_PROC_OF(object, enabled, ...) \
    KELM_LOG(enabled, ::kelm::LOG_LEVEL_PROC, "PROC", object, __VA_ARGS__)
#define LOG_FREQ_OF(object, enabled, ...) \
    KELM_LOG(enabled, ::kelm::LOG_LEVEL_FREQ, "FREQ", object, __VA_ARGS__)
#define LOG_INFO_OF(object, ...) KELM_LOG(true, ::kelm::LOG_LEVEL_INFO, "INFO", object, __VA_ARGS__)
#define LOG_ERROR_OF(object, ...) \
    KELM_LOG(true, ::kelm::LOG_LEVEL_ERROR, "ERROR", object, __VA_ARGS__)
