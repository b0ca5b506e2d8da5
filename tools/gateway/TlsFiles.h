#pragma once

#include <string>

namespace kelm::gateway {

// Files in PEM by which servers of both protocols prove who they are.
struct TlsFiles {
    std::string certificate;  // with those between it and the authority's
    std::string key;
};

}  // namespace kelm::gateway
