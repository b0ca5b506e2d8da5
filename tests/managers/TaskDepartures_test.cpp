#include "managers/TaskDepartures.h"

#include "fakes/TestPch.h"

namespace kelm {
namespace {

constexpr uint64_t kClient = 7;

TEST(TaskDeparturesTest, GraphWaitsForItsTasksAndTheSchedulerInAnyOrder) {
    char place = 0;  // graphs are keys here, and never followed
    auto* const graph = reinterpret_cast<KelmGraph*>(&place);
    for (const int tasks : {0, 1, 2}) {
        for (const int before : {0, 1, 2}) {  // tasks that end before the scheduler lets go
            if (before > tasks) continue;
            SCOPED_TRACE(testing::Message() << before << " of " << tasks);
            TaskDepartures departures;
            EXPECT_FALSE(departures.confirmDescheduled(graph)) << "departs not yet";
            EXPECT_TRUE(departures.addGraph(graph, tasks));
            EXPECT_FALSE(departures.addGraph(graph, tasks)) << "departs already";
            for (int i = 0; i < before; ++i) {
                EXPECT_FALSE(departures.removeTask(kClient, false, graph).graph);
            }
            EXPECT_EQ(departures.confirmDescheduled(graph), before == tasks);
            for (int i = before; i < tasks; ++i) {
                EXPECT_EQ(departures.removeTask(kClient, false, graph).graph, i + 1 == tasks);
            }
        }
    }
}

TEST(TaskDeparturesTest, ClientCountsDownOncePerTaskAndWhatItGaveUpApart) {
    TaskDepartures departures;
    departures.addClient(kClient, 0);
    EXPECT_FALSE(departures.hasClient(kClient)) << "a count of nothing";
    departures.addGivenUp(kClient, 1);
    departures.addClient(kClient, 2);
    EXPECT_FALSE(departures.removeTask(kClient, false, nullptr).client);
    EXPECT_TRUE(departures.hasGivenUp(kClient));
    EXPECT_TRUE(departures.removeTask(kClient, true, nullptr).client);
    EXPECT_FALSE(departures.hasGivenUp(kClient) || departures.hasClient(kClient));
    EXPECT_FALSE(departures.removeTask(kClient, true, nullptr).client);
}

}  // namespace
}  // namespace kelm
