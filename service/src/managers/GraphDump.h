#pragma once

#include <string>

namespace kelm {

class KelmGraph;

// Writes the blob of each new graph into a file, so that a fault of one can be looked into. Off
// unless configured.
//
// Threads: one.
class GraphDump {
 public:
    // Reads the configuration. Without a directory of that name there, a default one is made when
    // it is first needed.
    GraphDump();

    // The file is named for the graph, the time, the thread and the digest. The log tells of
    // success and of failure, which hinders nothing else.
    void write(KelmGraph& graph) const;

 private:
    const bool m_enabled;
    const std::string m_path;
};

}  // namespace kelm
