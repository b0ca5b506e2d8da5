#pragma once

#include <memory>
#include <string>

#include "client/Client.h"
#include "tools/kelmctl/GraphFile.h"

namespace kelm::ctl {

class Interruption;

// A graph, where it is to run, and how long each step may take.
struct GraphChoice {
    std::string graph;
    bool graphByPath = false;  // the service opens the graph's file itself
    std::string tag;
    std::string streamId;
    int subclass = 0;
    double timeout = 30.0;  // seconds for each step
};

// The client "kelmctl" with one graph. Its operations throw with a text for the user.
//
// Threads: one. Owns: a share of the connection, the other one is the interruption's.
class GraphSession {
 public:
    // For each step. Throws UsageError for a time-out that is none.
    static client::Deadline deadlineOf(const GraphChoice& choice);
    // Reads the file; the service is not asked for anything yet.
    GraphSession(const GraphChoice& choice, Interruption& interruption);
    // The same with a graph that has been read; the choice's is not looked at.
    GraphSession(const GraphChoice& choice, GraphFile file, Interruption& interruption);

    // Connects, registers and has the graph loaded.
    void open();
    // Runs a task on the slot, and waits for its end.
    client::InferResult run(client::TensorSlot& slot);
    // Destroys the graph and unregisters.
    void close();

    const client::Graph& graph() const { return m_graph; }
    const client::Client& service() const { return *m_service; }
    client::Deadline deadline() const { return m_deadline; }

 private:
    const GraphChoice m_choice;
    Interruption& m_interruption;
    const client::Deadline m_deadline;
    const GraphFile m_file;
    std::shared_ptr<client::Client> m_service;
    client::Graph m_graph;
};

}  // namespace kelm::ctl
