#include <span>
#include <sstream>

#include "fakes/FakeClientDirectory.h"
#include "fakes/FakeTaskScheduleListener.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "scheduling/tasks/TaskQueueFIFO.h"
#include "scheduling/tasks/TaskQueuePolling.h"
#include "utils/Port.h"

namespace kelm {
namespace {

struct Row {
    const char* rule;
    const char* script;
    const char* destroyed;
};

// Tasks with one letter as their name, the task's id.
class TaskQueueTest : public testing::Test {
 protected:
    KelmTask* makeTask(uint64_t clientId, char name) {
        KelmClient* client = m_clients.getClientById(clientId);
        if (client == nullptr) client = m_clients.add(clientId, "client");
        const KelmMsgReqInferTask request{};
        m_tasks.push_back(std::make_unique<KelmTask>(static_cast<uint64_t>(name), client, &m_graph,
                                                     nullptr, &request));
        (void)m_tasks.back()->setSendCreateResponseDone();  // or its end would be logged
        return m_tasks.back().get();
    }
    // The last one of the name.
    KelmTask* find(char name) {
        for (auto task = m_tasks.rbegin(); task != m_tasks.rend(); ++task) {
            if (nameOf(task->get()) == name) return task->get();
        }
        return nullptr;
    }
    static char nameOf(const KelmTask* task) {
        return task != nullptr ? static_cast<char>(task->getId()) : '-';
    }
    std::string destroyed() {
        std::string names;
        for (const KelmTask* task : m_listener.destroyed()) names += nameOf(task);
        return names;
    }

    // "+1a": client 1 queues a. "^1a": at the head. "-a": a is removed. "x1": all of client 1 is.
    // "?a": a is served, "?-": nothing is. Returns the steps that did something else.
    std::string run(TaskQueueBase& queue, const std::string& script) {
        std::istringstream steps(script);
        std::string surprises;
        for (std::string step; steps >> step;) {
            const uint64_t clientId = static_cast<uint64_t>(step[1] - '0');
            if (step[0] == '+' || step[0] == '^') {
                queue.enqueue(makeTask(clientId, step[2]), step[0] == '^');
            } else if (step[0] == '?') {
                const char served = nameOf(queue.dequeue());
                if (served != step[1]) surprises += step + " was " + served + "; ";
            } else if (!(step[0] == '-' ? queue.removeTask(find(step[1]))
                                        : queue.removeTask(clientId))) {
                surprises += step + " was not there; ";
            }
        }
        return surprises;
    }

    // Each row in a queue of its own.
    template <class Queue>
    void runAll(std::span<const Row> rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.rule);
            const size_t before = destroyed().size();
            Queue queue;
            EXPECT_EQ(run(queue, row.script), "");
            EXPECT_EQ(destroyed().substr(before), row.destroyed);
        }
    }

    FakeTaskScheduleListener m_listener;
    ScopedPort<TaskScheduleListener> m_port{m_listener};
    FakeClientDirectory m_clients;
    KelmGraph m_graph{1, 1, "graph", 1};
    std::vector<std::unique_ptr<KelmTask>> m_tasks;
};

TEST_F(TaskQueueTest, PollingServesClientsInTurn) {
    const Row rows[] = {
        {"one task a client and turn", "+1a +1b +2c +3d +3e ?a ?c ?d ?b ?e ?-", ""},
        {"one client alone keeps its order", "+5a +5b ?a +5c ?b ?c ?-", ""},
        {"ids decide, not arrivals", "+7a +3b +5c ?a ?b ?c ?-", ""},
        {"the search wraps past an emptied turn", "+5a +9b ?a -b +2c ?c ?-", "b"},
        {"serving nothing keeps the turn", "+1a +2b ?a -b ?- +1c +2d ?d ?c", "b"},
        {"the head is ahead of its client's only", "+1a +2b ^1c ^2d ?c ?d ?a ?b", ""},
        {"the turn passes on from a removed client", "+1a +2b +3c ?a x2 +1d ?c ?d", "b"},
        {"and wraps from the last one", "+1a +2b ?a x2 +1c ?c ?-", "b"},
        {"a client behind the turn goes quietly", "+1a +2b +3c ?a +1d x1 ?b ?c ?-", "d"},
        {"an emptied map starts anew", "+4a x4 ?- +9b +3c ?b ?c ?-", "a"},
        {"a removed task is passed over", "+1a +1b +1c -b ?a ?c ?-", "b"},
    };
    runAll<TaskQueuePolling>(rows);
}

TEST_F(TaskQueueTest, FirstComeServesInOrder) {
    const Row rows[] = {
        {"arrival decides", "+2a +1b +2c ?a ?b ?c ?-", ""},
        {"a returned task goes first", "+1a +1b ^2c ?c ?a ?b ?-", ""},
        {"the rest keeps its order", "+1a +1b +1c +1d ?a -c ?b ?d ?-", "c"},
        {"all of a client go", "+1a +2b +1c +2d x1 ?b ?d ?-", "ac"},
        {"an unknown client is no failure", "+1a x7 ?a", ""},
    };
    runAll<TaskQueueFIFO>(rows);
}

TEST_F(TaskQueueTest, QueueDestroysItsTasksAtItsEnd) {
    {
        TaskQueuePolling polling;
        TaskQueueFIFO fifo;
        EXPECT_EQ(run(polling, "+1a +2b +1c"), "");
        EXPECT_EQ(run(fifo, "+1d +2e"), "");
        EXPECT_EQ(polling.size() + fifo.size(), 5u);
        EXPECT_FALSE(polling.removeTask(find('d')));
        EXPECT_FALSE(fifo.removeTask(find('a')));
        EXPECT_FALSE(polling.removeTask(9ul));
    }
    EXPECT_EQ(destroyed(), "deacb");
    EXPECT_EQ(find('a')->getStatus(), TASK_STATUS_QUEUED);
}

TEST_F(TaskQueueTest, EntriesOfDepartedClientsAreDropped) {
    TaskQueuePolling queue;
    for (uint64_t clientId = 1; clientId <= 64; ++clientId) {
        queue.enqueue(makeTask(clientId, 'a'), false);
        ASSERT_EQ(nameOf(queue.dequeue()), 'a');
    }
    EXPECT_THAT(queue.getDescription(), testing::HasSubstr("numClients=64 "));
    EXPECT_EQ(run(queue, "+9b"), "");  // one that is known
    EXPECT_THAT(queue.getDescription(), testing::HasSubstr("numClients=64 "));
    queue.enqueue(makeTask(65, 'c'), false);
    EXPECT_THAT(queue.getDescription(), testing::HasSubstr("numClients=2 "));
    EXPECT_EQ(run(queue, "?b ?c ?-"), "");
}

}  // namespace
}  // namespace kelm
