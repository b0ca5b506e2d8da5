#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/kelmctl/export/PageRoutes.h"
#include "tools/kelmctl/export/page/PageHistory.h"
#include "utils/Mutex.h"

namespace kelm::ctl {

// The page, its live events and the same as JSON. An event has the whole of what stands on the
// page, so that page and stream cannot differ; it is made once a snapshot for all streams.
//
// Threads: any. Locks: m_mutex, a leaf.
class Page : public PageRoutes {
 public:
    Page();

    void remember(const ExportSnapshot& snapshot) override EXCLUDES(m_mutex);
    HttpAnswer page(const ExportSnapshot& snapshot) const override EXCLUDES(m_mutex);
    HttpAnswer snapshotJson(const ExportSnapshot& snapshot) const override;
    std::string event(const ExportSnapshot& snapshot) const override EXCLUDES(m_mutex);

 private:
    const std::string m_policy;  // Content-Security-Policy
    mutable Mutex m_mutex;
    PageHistory m_history GUARDED_BY(m_mutex);
    mutable std::optional<uint64_t> m_eventNumber GUARDED_BY(m_mutex);  // of the snapshot
    mutable std::string m_event GUARDED_BY(m_mutex);
};

}  // namespace kelm::ctl
