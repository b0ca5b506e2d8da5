#include "utils/StringHelper.h"

#include <boost/format.hpp>
#include <exception>

// A format that does not fit its arguments gives a line that says so: a mistake in a log call must
// not end the thread that logs.
std::string StringHelper::formatArgs(const char* format, std::span<const FormatArg> args) {
    try {
        boost::format formatter(format);
        for (const FormatArg& arg : args) {
            std::visit([&formatter](const auto& value) { formatter % value; }, arg.value());
        }
        return formatter.str();
    } catch (const std::exception& error) {
        return std::string(format) + "[BoostError: " + error.what() + "]";
    }
}
