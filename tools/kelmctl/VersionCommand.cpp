#include "tools/kelmctl/VersionCommand.h"

#include <fmt/format.h>

#include "client/Client.h"

namespace kelm::ctl {

std::string versionText() {
    const client::Version library = client::version();
    return fmt::format("kelmctl {}\nlibkelm {}\nprotocol {}.{}", KELM_VERSION, library.library,
                       library.protocolMajor, library.protocolMinor);
}

}  // namespace kelm::ctl
