#include "libkelm/GraphSource.h"

#include <exception>
#include <span>
#include <utility>

#include "client/FileBytes.h"

namespace kelm::lib {

namespace {

using client::Error;
using client::ErrorKind;
using client::Graph;
using client::Result;

struct Loader {
    client::Client& client;
    const client::GraphOptions& options;
    client::Deadline deadline;

    Result<Graph> operator()(const GraphSource::Memory& memory) const {
        return load({static_cast<const std::byte*>(memory.bytes), memory.count});
    }
    Result<Graph> operator()(const GraphSource::Copy& copy) const { return load(copy.bytes); }
    Result<Graph> operator()(const GraphSource::File& file) const {
        try {
            return load(client::readFileBytes(file.path));
        } catch (const std::runtime_error& error) {
            return Error(ErrorKind::kSystem, 0, error.what());
        }
    }
    Result<Graph> operator()(const GraphSource::ServiceFile& file) const {
        return client.createGraphFromFile(file.path, options, deadline);
    }

    // An empty request for a graph would be taken for one by path.
    Result<Graph> load(std::span<const std::byte> bytes) const {
        if (bytes.empty()) return Error(ErrorKind::kInvalidArgument, 0, "the graph has no bytes");
        return client.createGraph(bytes, options, deadline);
    }
};

}  // namespace

Result<Graph> loadGraph(client::Client& client, const GraphSource& source,
                        client::Deadline deadline) {
    return std::visit(Loader{client, source.options, deadline}, source.place);
}

GraphSource keepGraph(GraphSource source) {
    if (const auto* memory = std::get_if<GraphSource::Memory>(&source.place)) {
        const auto* bytes = static_cast<const std::byte*>(memory->bytes);
        source.place = GraphSource::Copy{{bytes, bytes + memory->count}};
    }
    return source;
}

}  // namespace kelm::lib
