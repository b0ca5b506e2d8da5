#pragma once

#include <string>

#include "tools/kelmctl/export/ExportModel.h"

namespace kelm::ctl {

class HtmlWriter;
class PageHistory;

// One snapshot as a person sees it. The whole of it is written anew each second; the script takes
// over what differs.
//
// Threads: one. Borrows both for its life.
class PageView {
 public:
    PageView(const ExportSnapshot& snapshot, const PageHistory& history)
        : m_snapshot(snapshot), m_history(history) {}

    // The text of the window's tab.
    std::string title() const;
    // What stands within <main>.
    std::string body() const;

 private:
    void writeState(HtmlWriter& html) const;
    void writeSummary(HtmlWriter& html) const;
    void writeCharts(HtmlWriter& html) const;
    void writeMoves(HtmlWriter& html) const;
    void writeService(HtmlWriter& html) const;

    const ExportSnapshot& m_snapshot;
    const PageHistory& m_history;
};

}  // namespace kelm::ctl
