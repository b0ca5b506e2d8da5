#pragma once

#include <memory>
#include <string>

#include "tools/kelmctl/export/ExportModel.h"
#include "tools/kelmctl/export/HttpAnswer.h"

namespace kelm::ctl {

// What the exporter shows to people.
//
// Threads: remember() comes from the sampler's, before the snapshot is handed out; the others from
// any of the server's, several at a time.
class PageRoutes {
 public:
    virtual ~PageRoutes() = default;
    // Each snapshot once, in order: for charts of the past.
    virtual void remember(const ExportSnapshot& snapshot) = 0;
    // `/`
    virtual HttpAnswer page(const ExportSnapshot& snapshot) const = 0;
    // `/snapshot.json`
    virtual HttpAnswer snapshotJson(const ExportSnapshot& snapshot) const = 0;
    // `/events`: one server-sent event as it goes over the wire, with its empty line. A stream gets
    // one for the newest snapshot at once, and then one for each.
    virtual std::string event(const ExportSnapshot& snapshot) const = 0;
};

// The page of this program; null: it has none.
std::unique_ptr<PageRoutes> makePageRoutes();

}  // namespace kelm::ctl
