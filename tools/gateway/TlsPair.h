#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

namespace kelm::gateway {

// Files in PEM by which servers of both protocols prove who they are.
struct TlsFiles {
    std::string certificate;  // with those between it and the authority's
    std::string key;
};

// What is in them.
struct TlsPair {
    // Throws with the reason: a file cannot be read, or the two do not belong together. A key with
    // a password is one that cannot be read.
    static TlsPair read(const TlsFiles& files);

    std::string certificates;
    std::string key;
};

using TlsContext = boost::asio::ssl::context;
// Throws if the two are of no use.
std::shared_ptr<TlsContext> makeTlsContext(const TlsPair& pair);

}  // namespace kelm::gateway
