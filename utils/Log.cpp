#include "utils/Log.h"

#include <cstring>
#include <iostream>
#include <new>
#include <sstream>

#include "utils/MemoryReserve.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"

namespace kelm {

namespace {

// Levels from here on print their whole tag.
constexpr uint32_t kFirstWholeTag = 64;

const char* lastComponent(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

const char* priorityOf(LogLevel level) {
    if (level == LOG_LEVEL_ERROR || level == LOG_LEVEL_FATAL) return "<3>";
    if (level == LOG_LEVEL_WARN) return "<4>";
    return level == LOG_LEVEL_INFO ? "<6>" : "<7>";
}

// The journal takes each line of a table for a message of its own.
std::string markLines(std::string text, const char* mark) {
    text.insert(0, mark);
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1)) {
        text.insert(end + 1, mark);
    }
    return text;
}

}  // namespace

const char* colorBegin(LogLevel level) {
    if (level == LOG_LEVEL_ERROR || level == LOG_LEVEL_FATAL) return "\033[1;31;40m";
    return level == LOG_LEVEL_WARN ? "\033[1;36;40m" : "";
}

const char* colorEnd(LogLevel level) { return colorBegin(level)[0] != '\0' ? "\033[0m" : ""; }

void Log::setPriorities(bool on) {
    MutexLock lock(m_mutex);
    m_priorities = on;
}

void Log::setLog4cppInitFile(const std::string&) {}

// Put together first and written in one piece; the mutex keeps the lines of threads apart. Who
// tells of an exception, or of memory that is missing, must not meet another one here.
void Log::writeLine(LogLevel level, const char* tag, const char* file, int64_t line,
                    const char* object, const char* format, std::span<const FormatArg> args) {
    MutexLock lock(m_mutex);
    const MemoryReserve::Patience patience(MemoryReserve::kNoWait);  // with the mutex held
    try {
        std::cout << makeLine(level, tag, file, line, object, format, args);
    } catch (const std::bad_alloc&) {
        std::cout << "a line of the log found no memory\n";
    }
}

std::string Log::makeLine(LogLevel level, const char* tag, const char* file, int64_t line,
                          const char* object, const char* format,
                          std::span<const FormatArg> args) const {
    std::ostringstream text;
    text << m_prefix << "[" << getCurrentTime() << "]"
         << "[" << ThreadUtils::getThreadId() << "]";
    if (level < kFirstWholeTag) {
        text << tag[0];
    } else {
        text << tag;
    }
    text << "[" << lastComponent(file) << ":" << line << "]";
    if (object != nullptr) text << "[" << object << "]";
    text << " " << StringHelper::formatArgs(format, args) << m_suffix;
    const std::string whole = m_priorities ? markLines(text.str(), priorityOf(level))
                                           : colorBegin(level) + text.str() + colorEnd(level);
    return whole + "\n";
}

}  // namespace kelm
