#include "tools/kelmctl/export/PageRoutes.h"

namespace kelm::ctl {

std::unique_ptr<PageRoutes> makePageRoutes() { return nullptr; }

}  // namespace kelm::ctl
