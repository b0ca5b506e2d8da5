#include "tools/kelmctl/EventsCommand.h"

#include <charconv>
#include <ctime>
#include <iostream>
#include <stdexcept>

#include "tools/kelmctl/EventHistory.h"
#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/UsageError.h"
#include "utils/TimeHelper.h"

namespace kelm::ctl {

namespace {

using Time = std::chrono::system_clock::time_point;

constexpr int kEventsSchema = 1;

// A time of the day without a date is one of today.
bool parseTime(const std::string& text, Time now, Time& time) {
    constexpr const char* kFormats[] = {"%H:%M", "%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"};
    const std::time_t today = std::chrono::system_clock::to_time_t(now);
    for (const char* format : kFormats) {
        tm fields{};
        if (!TimeHelper::localtimeSafe(&today, &fields)) return false;
        fields.tm_sec = 0;
        const char* const end = ::strptime(text.c_str(), format, &fields);
        if (end == nullptr || *end != '\0') continue;
        fields.tm_isdst = -1;
        time = std::chrono::system_clock::from_time_t(std::mktime(&fields));
        return true;
    }
    return false;
}

bool isWanted(const EventRow& row, const EventStart& start) {
    if (row.kind == "gap") return row.gapTo >= start.sequence;
    return row.sequence >= start.sequence && row.time >= start.time;
}

// Flushed each time: a reader behind a pipe waits for whole lines.
void print(EventRow row, bool json) {
    static const bool utf8 = useTerminalLocale();
    row.json["schema"] = kEventsSchema;
    std::cout << (json ? toJsonText(row.json) + "\n" : eventText(row, utf8)) << std::flush;
    if (!std::cout) throw std::runtime_error("cannot write the events; is the disk full?");
}

}  // namespace

EventStart parseSince(const std::string& text, Time now) {
    constexpr struct {
        char unit;
        int seconds;
    } kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    constexpr uint64_t kMostAge = 100000;  // units; keeps the arithmetic below in its range
    EventStart start;
    if (text.empty()) return start;
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec == std::errc() && result.ptr == end) {
        start.sequence = number;
        return start;
    }
    for (const auto& row : kUnits) {
        const bool isAge =
            result.ec == std::errc() && result.ptr + 1 == end && *result.ptr == row.unit;
        if (!isAge || number > kMostAge) continue;
        start.time = now - std::chrono::seconds(static_cast<int64_t>(number) * row.seconds);
        return start;
    }
    if (parseTime(text, now, start.time)) return start;
    throw UsageError(
        "--since takes the number of an event, an age as 90s, 10m, 2h or 1d, or a "
        "time as 21:30 or 2026-01-31T21:30:05");
}

int runEvents(const EventsOptions& options) {
    const EventStart start = parseSince(options.since, std::chrono::system_clock::now());
    const auto reader = client::take(client::EventReader::connect());
    const EventHistory history = client::take(readHistory(*reader, kAllEvents));
    for (const EventRow& row : history.events) {
        if (isWanted(row, start)) print(row, options.json);
    }
    while (options.follow) {
        const EventRow row = parseEvent(client::take(reader->read(kAnyTime)));
        if (isWanted(row, start)) print(row, options.json);
    }
    return 0;
}

}  // namespace kelm::ctl
