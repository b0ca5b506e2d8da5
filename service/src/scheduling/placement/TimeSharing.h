#pragma once

#include <cstddef>
#include <vector>

#include "scheduling/placement/PlacementBoard.h"
#include "scheduling/placement/PlacementPicture.h"

namespace kelm {

// What time sharing knows of a graph beside the board.
struct TurnState {
    double demand = 0.0;    // seconds of work a second
    double habit = 0.0;     // the same, of the last minutes
    double backlog = 0.0;   // seconds of work that wait
    double age = 0.0;       // seconds since the oldest of its tasks, or its creator, waits
    double loadTime = 0.0;  // seconds
    bool asks = false;      // a task or the creator waits
};

// With more graphs than places they take turns. A graph that waits takes the place of one that has
// no work left, or whose turn is over; of these the one that is missed least. A turn is the longer
// the more work its graph has, and the turns of all the longer the more loads take of the devices'
// time.
class TimeSharing {
 public:
    // Graph `graph` takes the place of `victim`.
    struct Turn {
        size_t graph = 0;
        size_t device = 0;
        size_t victim = 0;
    };

    TimeSharing(const PlacementBoard& board, const PlacementPicture& picture,
                const std::vector<TurnState>& states);

    // A place for a graph without one. False: none may be taken now.
    bool findTurn(size_t graph, Turn& turn) const;
    // A further place for a graph whose devices cannot keep up, from one that has no work.
    bool findCopy(size_t graph, Turn& turn) const;
    bool isShortOfCopies(size_t graph) const {
        return m_board.graphs()[graph].places.size() < m_copies[graph];
    }
    // No graph waits longer while others take turns.
    double longestWait() const { return m_longestWait; }
    // Those whose turn starts now are not looked at.
    void start(const Turn& turn);

 private:
    void giveCopies(double slots);
    bool mayLeave(size_t victim, double since, bool overdue) const;
    double harm(size_t graph, size_t device, size_t victim) const;
    double servedOf(size_t graph) const;
    double sinceOf(size_t graph, size_t device) const;

    const PlacementBoard& m_board;
    const PlacementPicture& m_picture;
    const std::vector<TurnState>& m_states;
    std::vector<bool> m_started;
    // The places that each graph may keep to itself: those that its work fills, as long as the
    // others find room for theirs.
    std::vector<size_t> m_copies;
    bool m_isScarce = false;
    double m_period = 0.0;
    double m_longestWait = 0.0;
};

}  // namespace kelm
