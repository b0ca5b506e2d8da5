// The graphs of the C interface.
#include <cstring>

#include "kelm/kelm.h"
#include "libkelm/Handles.h"
#include "libkelm/Structs.h"

using namespace kelm::lib;

namespace {

constexpr size_t kMostWaiting = 65536;
constexpr size_t kLongestTag = 511;

int checkOptions(const kelm_graph_options* options, kelm_graph_options& known) {
    if (options != nullptr && !readStruct(options, known)) return invalid(kBadStruct);
    if (known.deadline_ms < 0) return invalid(kBadDeadline);
    if (known.expect_devices < 0) return invalid("a graph cannot expect fewer than 0 devices");
    // Cut to the field of the request they would pick other devices.
    for (const char* text : {known.tag, known.stream_id}) {
        if (std::strlen(textOr(text, "")) > kLongestTag) {
            return invalid("the tag or the stream id of a graph has more than 511 bytes");
        }
    }
    return KELM_SUCCESS;
}

// `place` tells where the bytes are; the name is that of the file if there is no other.
int loadGraph(kelm_client* client, decltype(GraphSource::place) place, const char* defaultName,
              const kelm_graph_options* options, kelm_graph** graph) {
    kelm_graph_options known{};
    if (client == nullptr) return invalid("there is no client");
    if (graph == nullptr) return invalid("there is no place for the graph's handle");
    if (const int error = checkOptions(options, known); error != KELM_SUCCESS) return error;
    if (Callbacks::isInside()) return invalid(kWaitInCallback);
    GraphSource source;
    source.place = std::move(place);
    source.options.name = textOr(known.name, defaultName);
    source.options.tag = textOr(known.tag, "");
    source.options.streamId = textOr(known.stream_id, "");
    source.options.subclass = known.subclass;
    source.options.expectDevices = known.expect_devices != 0 ? known.expect_devices : 1;
    const GraphQueue::Limits limits{known.window,
                                    known.max_waiting != 0 ? known.max_waiting : kMostWaiting};
    auto loaded = client->session->load(
        source, limits, deadlineOr(known.deadline_ms, kelm::client::kGraphDeadline));
    if (!loaded) return fail(loaded.error());
    *graph = new kelm_graph{{}, client->session, loaded.value().queue, loaded.value().graph};
    return KELM_SUCCESS;
}

int checkPath(const char* path) {
    return path != nullptr && *path != '\0' ? int{KELM_SUCCESS}
                                            : invalid("there is no path of a graph file");
}

}  // namespace

int kelm_graph_from_memory(kelm_client* client, const void* bytes, size_t count,
                           const kelm_graph_options* options, kelm_graph** graph) {
    return guarded([&] {
        if (bytes == nullptr || count == 0) return invalid("the graph has no bytes");
        return loadGraph(client, GraphSource::Memory{bytes, count}, "unnamed", options, graph);
    });
}

int kelm_graph_from_file(kelm_client* client, const char* path, const kelm_graph_options* options,
                         kelm_graph** graph) {
    return guarded([&] {
        if (const int error = checkPath(path); error != KELM_SUCCESS) return error;
        return loadGraph(client, GraphSource::File{path}, path, options, graph);
    });
}

int kelm_graph_from_service_file(kelm_client* client, const char* path,
                                 const kelm_graph_options* options, kelm_graph** graph) {
    return guarded([&] {
        if (const int error = checkPath(path); error != KELM_SUCCESS) return error;
        return loadGraph(client, GraphSource::ServiceFile{path}, path, options, graph);
    });
}

int kelm_graph_get_info(const kelm_graph* graph, kelm_graph_info* info) {
    return guarded([&] {
        if (graph == nullptr) return invalid("there is no graph");
        kelm_graph_info known{};
        known.window = static_cast<uint32_t>(graph->queue->window());
        known.id = graph->queue->graphId();
        known.input_bytes = graph->sizes.inputSize;
        known.output_bytes = graph->sizes.outputSize;
        known.time_taken_bytes = graph->sizes.timeTakenSize;
        known.thermal_bytes = graph->sizes.thermalSize;
        known.debug_bytes = graph->sizes.debugSize;
        return writeStruct(known, info) ? int{KELM_SUCCESS} : invalid(kBadStruct);
    });
}

int kelm_graph_free(kelm_graph* graph) {
    return guarded([&] {
        if (graph == nullptr) return int{KELM_SUCCESS};
        if (Callbacks::isInside()) return invalid(kWaitInCallback);
        if (!graph->isHere()) return invalid(kOfParent);
        const std::unique_ptr<kelm_graph> owned(graph);
        return fail(owned->session->unload(owned->queue));
    });
}
