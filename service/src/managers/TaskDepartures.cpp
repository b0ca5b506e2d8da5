#include "managers/TaskDepartures.h"

namespace kelm {

namespace {

// True when the count has reached 0, which also takes it out.
bool countDown(std::map<uint64_t, int32_t>& counts, uint64_t clientId) {
    const auto entry = counts.find(clientId);
    if (entry == counts.end() || --entry->second > 0) return false;
    counts.erase(entry);
    return true;
}

}  // namespace

// Without tasks there is nothing to count down: the caller reports at once.
void TaskDepartures::addClient(uint64_t clientId, int32_t tasks) {
    if (tasks > 0) m_clientCounts.emplace(clientId, tasks);
}

void TaskDepartures::addGivenUp(uint64_t clientId, int32_t tasks) {
    if (tasks > 0) m_givenUpCounts.emplace(clientId, tasks);
}

// Entered also without tasks, unlike a client: the scheduler's word is still to come.
bool TaskDepartures::addGraph(KelmGraph* graph, int32_t tasks) {
    return m_graphCounts.try_emplace(graph, GraphCount{false, tasks}).second;
}

TaskDepartures::Done TaskDepartures::removeTask(uint64_t clientId, bool givenUp, KelmGraph* graph) {
    Done done;
    done.client = countDown(m_clientCounts, clientId);
    if (givenUp) (void)countDown(m_givenUpCounts, clientId);
    // Whichever of the two comes second, the last task or the scheduler's word, ends the departure.
    const auto entry = m_graphCounts.find(graph);
    if (entry != m_graphCounts.end() && --entry->second.tasks == 0 && entry->second.descheduled) {
        m_graphCounts.erase(entry);
        done.graph = true;
    }
    return done;
}

bool TaskDepartures::confirmDescheduled(KelmGraph* graph) {
    const auto entry = m_graphCounts.find(graph);
    if (entry == m_graphCounts.end()) return false;
    entry->second.descheduled = true;
    if (entry->second.tasks >= 1) return false;
    m_graphCounts.erase(entry);
    return true;
}

}  // namespace kelm
