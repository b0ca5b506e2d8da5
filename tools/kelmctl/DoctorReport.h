#pragma once

#include <string>
#include <vector>

namespace kelm::ctl {

enum class Verdict { kOk, kWarning, kProblem };

// One thing that was looked at.
struct DoctorRow {
    std::string check;  // a short name, the same in every run
    Verdict verdict = Verdict::kOk;
    std::string text;    // what was found
    std::string advice;  // what to do; empty if all is well
};

// What a run of the doctor has found, printed as it is found or as one object at the end.
//
// Threads: one.
class DoctorReport {
 public:
    explicit DoctorReport(bool json);

    void add(const DoctorRow& row);
    // Prints what is left. 1 if there is a problem, else 0.
    int finish();

 private:
    const bool m_json;
    const bool m_utf8;
    std::vector<DoctorRow> m_rows;
};

}  // namespace kelm::ctl
