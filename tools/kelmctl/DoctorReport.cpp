#include "tools/kelmctl/DoctorReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tools/kelmctl/JsonText.h"
#include "tools/kelmctl/SafeText.h"

namespace kelm::ctl {

namespace {

constexpr int kChecksSchema = 1;

const char* nameOf(Verdict verdict) {
    static constexpr const char* kNames[] = {"ok", "warning", "problem"};
    return kNames[static_cast<size_t>(verdict)];
}

}  // namespace

DoctorReport::DoctorReport(bool json) : m_json(json), m_utf8(useTerminalLocale()) {}

// Flushed: the next check may take its time.
void DoctorReport::add(const DoctorRow& row) {
    m_rows.push_back(row);
    if (m_json) return;
    const std::string line = fmt::format("{:<8} {}: {}{}{}", nameOf(row.verdict), row.check,
                                         row.text, row.advice.empty() ? "" : "; ", row.advice);
    std::cout << toUtf8(safeText(line, m_utf8)) << std::endl;
}

int DoctorReport::finish() {
    const auto isProblem = [](const DoctorRow& row) { return row.verdict == Verdict::kProblem; };
    const bool isWell = std::ranges::none_of(m_rows, isProblem);
    if (m_json) {
        nlohmann::json object{{"schema", kChecksSchema}, {"checks", nlohmann::json::array()}};
        for (const DoctorRow& row : m_rows) {
            object["checks"].push_back({{"check", row.check},
                                        {"result", nameOf(row.verdict)},
                                        {"text", row.text},
                                        {"advice", row.advice}});
        }
        std::cout << toJsonText(object) << "\n";
    }
    return isWell ? 0 : 1;
}

}  // namespace kelm::ctl
