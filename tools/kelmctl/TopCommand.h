#pragma once

namespace kelm::ctl {

// Shows the service live on the whole terminal until a key or a signal ends it. Exit status 0, or
// 128 and the number of a signal other than SIGINT.
int runTop();

}  // namespace kelm::ctl
