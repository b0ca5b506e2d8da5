#include "tools/kelmctl/GraphFile.h"

#include <stdexcept>
#include <utility>

#include "client/FileBytes.h"

namespace kelm::ctl {

// An empty request for a graph would be taken for one by path.
GraphFile::GraphFile(std::string path, bool byPath) : m_path(std::move(path)), m_byPath(byPath) {
    if (m_byPath) return;
    m_bytes = client::readFileBytes(m_path);
    if (m_bytes.empty()) throw std::runtime_error("the graph file " + m_path + " is empty");
}

client::Result<client::Graph> GraphFile::create(client::Client& service,
                                                client::GraphOptions options,
                                                client::Deadline deadline) const {
    options.name = m_path;
    return m_byPath ? service.createGraphFromFile(m_path, options, deadline)
                    : service.createGraph(m_bytes, options, deadline);
}

}  // namespace kelm::ctl
