// In place of the service's log and of its formatter, which needs Boost: the library is a guest in
// its program and writes to none of its streams. Texts of exceptions are formatted as there.
#include <fmt/args.h>
#include <fmt/printf.h>

#include <exception>
#include <span>
#include <string>
#include <variant>

#include "utils/Log.h"
#include "utils/StringHelper.h"

namespace kelm {

void Log::writeLine(LogLevel, const char*, const char*, int64_t, const char*, const char*,
                    std::span<const FormatArg>) {}

}  // namespace kelm

std::string StringHelper::formatArgs(const char* format, std::span<const FormatArg> args) {
    try {
        fmt::dynamic_format_arg_store<fmt::printf_context> values;
        for (const FormatArg& arg : args) {
            std::visit([&values](const auto& value) { values.push_back(value); }, arg.value());
        }
        return fmt::vsprintf(fmt::string_view(format), values);
    } catch (const std::exception&) {
        return format;
    }
}
