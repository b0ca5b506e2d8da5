#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "reporting/ServiceEvent.h"

namespace kelm {

class KelmGraph;
class StatusChangeOperation;
class WorkThread;

// Why the decisions of a pass were taken, for the journal of events. They are told once the pass
// is committed, with what came of them: an unload and a load of one graph become a move.
//
// Threads: the scheduling thread only. Borrows operations and graphs until tell() or forgetPass();
// of workers and of former passes only names and ids are kept.
class PlacementNotes {
 public:
    void load(KelmGraph* graph, WorkThread* worker, PlacementReason reason,
              StatusChangeOperation& operation);
    void unload(KelmGraph* graph, WorkThread* worker, PlacementReason reason);
    // Without a place, though it asks for one; told again only after it has had one.
    void refuse(KelmGraph* graph, PlacementReason reason, PlacementLack lack, int32_t code = 0);
    // Whether that has been told already.
    bool isRefused(KelmGraph* graph) const { return m_refused.contains(graph); }
    // How many devices the graph would have; told with its next event.
    void ask(KelmGraph* graph, float devices);

    void tell();
    // After tell(), and without following it: the graph's record ends.
    void forgetGraph(KelmGraph* graph);
    void forgetPass();

 private:
    struct Note {
        KelmGraph* graph;
        StatusChangeOperation* operation;  // of a load
        ServiceEvent event;
    };
    // Where a graph was before it lost its device.
    struct Loss {
        PlacementReason reason;
        EventName device;
    };

    static ServiceEvent makeEvent(EventAction action, PlacementReason reason, KelmGraph* graph);
    void tellLoad(Note& note);
    // Takes the load's unload out of the notes, or the loss of an earlier pass.
    void findFormerPlace(Note& note);
    void tellUnload(Note& note);
    void tellRefusal(Note& note);
    void tellKept();
    void tell(const Note& note);

    std::vector<Note> m_loads;
    std::vector<Note> m_unloads;
    std::vector<Note> m_refusals;
    std::map<KelmGraph*, float> m_asked;

    // From pass to pass; the graphs are keys.
    std::map<KelmGraph*, Loss> m_losses;
    std::set<KelmGraph*> m_refused;
    std::set<KelmGraph*> m_kept;
};

}  // namespace kelm
