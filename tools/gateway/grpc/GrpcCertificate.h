#pragma once

#include <grpcpp/security/server_credentials.h>

#include <ctime>
#include <memory>

#include "tools/gateway/TlsPair.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// A certificate and its key that are exchanged while gRPC serves. It takes them from a file that it
// looks at each second: here one in memory, which has had them checked and holds one pair at any
// time.
//
// Threads: one at a time. Owns: the file, which must be there as long as the credentials are used.
class GrpcCertificate : public NonCopyable {
 public:
    explicit GrpcCertificate(const TlsPair& pair) { replace(pair); }

    // For connections from a second later on.
    void replace(const TlsPair& pair);
    std::shared_ptr<grpc::ServerCredentials> makeCredentials() const;

 private:
    UniqueFd m_file;
    time_t m_changed = 0;  // what it says of its time
};

}  // namespace kelm::gateway
