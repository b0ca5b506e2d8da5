#include "tools/kelmctl/GraphFile.h"

#include <stdexcept>
#include <utility>

#include "client/FileBytes.h"
#include "protocol/src/KelmError.h"

namespace kelm::ctl {

namespace {

// The service waits without limit for a device that can take the graph, and takes a subclass whose
// devices it has never seen for a mistake.
client::Error explain(client::Client& service, const client::Error& error) {
    constexpr client::Deadline kTimeToTell{1000};
    const bool isTimeout = error.kind() == client::ErrorKind::kTimeout;
    if (!isTimeout && error.code() != KELM_ERROR_INVALID_PARAM) return error;
    const auto status = service.queryStatus(client::StatusPart::kOverview, kTimeToTell);
    if (!status) return error;
    const uint32_t count = status.value().deviceCount;
    if (count == 0) {
        return {error.kind(), error.code(),
                "the service has no device; plug one in, and see its log if it is not found"};
    }
    if (!isTimeout) return error;
    return {error.kind(), error.code(),
            "none of the " + std::to_string(count) +
                " devices has taken the graph in time; see kelmctl status and the log of the "
                "service, or give it more time"};
}

}  // namespace

// An empty request for a graph would be taken for one by path.
GraphFile::GraphFile(std::string path, bool byPath) : m_path(std::move(path)), m_byPath(byPath) {
    if (m_byPath) return;
    m_bytes = client::readFileBytes(m_path);
    if (m_bytes.empty()) {
        throw std::runtime_error("the graph file " + m_path + " is empty; give a compiled graph");
    }
}

GraphFile::GraphFile(std::string name, std::vector<std::byte> bytes)
    : m_path(std::move(name)), m_byPath(false), m_bytes(std::move(bytes)) {}

client::Result<client::Graph> GraphFile::create(client::Client& service,
                                                client::GraphOptions options,
                                                client::Deadline deadline) const {
    options.name = m_path;
    auto graph = m_byPath ? service.createGraphFromFile(m_path, options, deadline)
                          : service.createGraph(m_bytes, options, deadline);
    if (graph) return graph;
    return explain(service, graph.error());
}

}  // namespace kelm::ctl
