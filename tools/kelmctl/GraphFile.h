#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/Client.h"

namespace kelm::ctl {

// A compiled graph on its way to the service: its bytes, read with the rights of the user who runs
// the command, or its path, which the service opens with its own.
//
// Threads: any.
class GraphFile {
 public:
    // Throws std::runtime_error with a text for the user when there are no bytes to be had.
    GraphFile(std::string path, bool byPath);
    // Bytes that are in no file, and a name for them.
    GraphFile(std::string name, std::vector<std::byte> bytes);

    // The graph has the file's path for its name. Where no device takes it, the error tells which
    // devices there are.
    client::Result<client::Graph> create(client::Client& service, client::GraphOptions options,
                                         client::Deadline deadline = client::kGraphDeadline) const;

 private:
    std::string m_path;
    bool m_byPath;
    std::vector<std::byte> m_bytes;  // none by path
};

}  // namespace kelm::ctl
