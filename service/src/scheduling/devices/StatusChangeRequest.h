#pragma once

namespace kelm {

enum StatusChangeRequestType : int {
    REQUEST_LOAD_GRAPH = 0,
    REQUEST_UNLOAD_GRAPH = 1,
    REQUEST_ADD_WORKER = 2,
    REQUEST_REMOVE_WORKER = 3,
};

// One wish of a device scheduler's clients: a graph to load or unload, a worker to add or remove.
// A value; the graph or worker is borrowed.
class StatusChangeRequest {
 public:
    StatusChangeRequest(StatusChangeRequestType type, void* data) : m_type(type), m_data(data) {}

    StatusChangeRequestType getType() const { return m_type; }
    // A KelmGraph for the first two types, a WorkThread for the others.
    void* getData() const { return m_data; }

 private:
    StatusChangeRequestType m_type;
    void* m_data;
};

}  // namespace kelm
