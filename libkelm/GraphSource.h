#pragma once

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "client/Client.h"

namespace kelm::lib {

// Where the bytes of a graph are, for the first load and for those after a reconnect.
struct GraphSource {
    struct Memory {
        const void* bytes;  // the program's
        size_t count;
    };
    struct Copy {
        std::vector<std::byte> bytes;
    };
    struct File {  // read by this process
        std::string path;
    };
    struct ServiceFile {  // read by the service
        std::string path;
    };

    std::variant<Memory, Copy, File, ServiceFile> place;
    client::GraphOptions options;
};

// Loads the graph. A file that cannot be read is kSystem.
client::Result<client::Graph> loadGraph(client::Client& client, const GraphSource& source,
                                        client::Deadline deadline);
// The same source for later: without memory that is the program's.
GraphSource keepGraph(GraphSource source);

}  // namespace kelm::lib
