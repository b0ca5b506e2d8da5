#pragma once

#include <string>

#include "tools/kelmctl/export/ExportModel.h"

namespace kelm::ctl {

// The snapshot for programs, as one line of ASCII; null: not known.
std::string snapshotJson(const ExportSnapshot& snapshot);

}  // namespace kelm::ctl
