#include "fakes/Recorded.h"
#include "fakes/ServiceFixture.h"
#include "fakes/ServiceProcess.h"
#include "kelm/kelm.hpp"

namespace kelm {
namespace {

using Millis = std::chrono::milliseconds;

// How tasks have ended, in order. Any thread.
class Ends {
 public:
    // A callback that adds.
    auto adder() {
        return [this](const kelm_result& result) { m_results.add(result); };
    }
    std::vector<uint64_t> cookies() const {
        std::vector<uint64_t> cookies;
        for (const kelm_result& result : m_results()) cookies.push_back(result.cookie);
        return cookies;
    }
    std::vector<int> errors() const {
        std::vector<int> errors;
        for (const kelm_result& result : m_results()) errors.push_back(result.error);
        return errors;
    }
    kelm_result last() const { return m_results().back(); }
    bool wait(size_t count) const {
        return eventually([&] { return m_results().size() >= count; });
    }

 private:
    Recorded<kelm_result> m_results;  // whose texts are gone
};

int codeOf(const std::function<void()>& call) {
    try {
        call();
        return KELM_SUCCESS;
    } catch (const Error& error) {
        EXPECT_STRNE(error.what(), "");
        return error.code();
    }
}

class QueueTest : public SystemFixture {
 protected:
    void open(int latencyMs, uint32_t window, ClientOptions options = {}) {
        start(latencyMs);
        options.socketPath = path();
        m_client.emplace(options);
        m_graph.emplace(m_client->load(std::as_bytes(std::span("graph")), {.window = window}));
        m_pool.emplace(m_graph->makePool());
    }
    uint64_t submit(uint64_t cookie, uint32_t priority = 0, Millis deadline = 0ms) {
        return m_graph->start(m_slots.emplace_back(m_pool->acquire()),
                              {.deadline = deadline, .priority = priority, .cookie = cookie},
                              m_ends.adder());
    }
    uint64_t tasksOfService() const { return readPackage()->clients[0].inferenceTimes; }

    Ends m_ends;
    std::vector<Slot> m_slots;
    std::optional<Client> m_client;
    std::optional<Graph> m_graph;
    std::optional<Pool> m_pool;
};

TEST_F(QueueTest, WaitingTasksAreSentByPriorityThenByAge) {
    open(100, 1);
    submit(0);
    for (const uint64_t cookie : {1, 2, 3}) submit(cookie, 3);
    for (const uint64_t cookie : {4, 5}) submit(cookie, 15);
    submit(6);
    ASSERT_TRUE(m_ends.wait(7));
    EXPECT_THAT(m_ends.cookies(), ElementsAre(0, 4, 5, 1, 2, 3, 6));
    EXPECT_GE(m_ends.last().waited_ns, 6 * 100'000'000U);
    EXPECT_GT(m_ends.last().total_ns, m_ends.last().waited_ns + m_ends.last().accepted_ns);
}

TEST_F(QueueTest, TaskWhoseDeadlinePassesHereIsNeverSent) {
    open(300, 1);
    submit(0);
    submit(1, 0, 50ms);
    ASSERT_TRUE(m_ends.wait(2));
    EXPECT_THAT(m_ends.cookies(), ElementsAre(1, 0));
    EXPECT_THAT(m_ends.errors(), ElementsAre(KELM_EXPIRED, KELM_SUCCESS));
    // The slot is free at once, and nothing else was ever sent.
    EXPECT_TRUE(m_graph->infer(m_slots[1]).ok());
    EXPECT_TRUE(eventually([&] { return tasksOfService() == 2; }));
}

TEST_F(QueueTest, CancelTakesBackHereAndInTheService) {
    open(300, 5);  // one of five waits in the service, on devices that take two each
    std::vector<uint64_t> tickets;
    for (uint64_t i = 0; i < 8; ++i) tickets.push_back(submit(i));
    EXPECT_TRUE(m_graph->cancel(tickets[7]));
    ASSERT_TRUE(m_ends.wait(1));
    EXPECT_EQ(m_ends.cookies()[0], 7U);
    int taken = 0;
    for (size_t i = 0; i < 5; ++i) taken += m_graph->cancel(tickets[i]) ? 1 : 0;
    EXPECT_LT(taken, 5);  // those on devices run on
    ASSERT_TRUE(m_ends.wait(8));
    EXPECT_EQ(std::ranges::count(m_ends.errors(), int{KELM_CANCELED}), 1 + taken);
    EXPECT_FALSE(m_graph->cancel(tickets[0]));
    EXPECT_FALSE(m_graph->cancel(12345));
    EXPECT_EQ(m_ends.cookies().size(), 8U);
}

TEST_F(QueueTest, RefusedTasksComeBackUntilTheServiceTakesThem) {
    open(1, 4000);
    for (uint64_t i = 0; i < 4000; ++i) {
        auto task = detail::sized<kelm_task>();
        task.cookie = i;
        task.deadline_ms = 60000;
        m_graph->start(task, m_ends.adder());
    }
    ASSERT_TRUE(m_ends.wait(4000));
    EXPECT_EQ(std::ranges::count(m_ends.errors(), KELM_SUCCESS), 4000);
    const auto cookies = m_ends.cookies();
    EXPECT_EQ(std::set(cookies.begin(), cookies.end()).size(), 4000U);
}

TEST_F(QueueTest, CallbacksRunInDispatchOnlyWhereTheProgramAsksForThat) {
    open(0, 2, {.dispatch = true});
    std::atomic<bool> inDispatch{false};
    int outside = 0;
    for (uint64_t i = 0; i < 5; ++i) {
        m_graph->start(m_slots.emplace_back(m_pool->acquire()), {.cookie = i},
                       [&, add = m_ends.adder()](const kelm_result& result) {
                           outside += inDispatch ? 0 : 1;
                           EXPECT_EQ(codeOf([&] { m_graph->infer(m_slots[0]); }),
                                     KELM_INVALID_ARGUMENT);
                           EXPECT_EQ(kelm_close(m_client->get()), KELM_INVALID_ARGUMENT);
                           add(result);
                       });
    }
    // A call that waits needs no dispatch.
    EXPECT_TRUE(m_graph->infer(m_slots.emplace_back(m_pool->acquire())).ok());
    while (m_ends.cookies().size() < 5) {
        pollfd due{m_client->fd(), POLLIN, 0};
        ASSERT_EQ(::poll(&due, 1, 20000), 1);
        inDispatch = true;
        EXPECT_GT(m_client->dispatch(), 0);
        inDispatch = false;
    }
    EXPECT_EQ(outside, 0);
    EXPECT_EQ(m_client->dispatch(), 0);
}

// A call that waits alone reads the answers itself from the second time on.
TEST_F(QueueTest, CallThatReadsHoldsUpNothingElse) {
    open(250, 9);
    const Slot slot = m_pool->acquire();
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(m_graph->infer(slot).ok());
    std::thread::id reader;
    auto call = startCalling([&] {
        reader = std::this_thread::get_id();
        return codeOf([&] { m_graph->infer(m_pool->acquire()); });
    });
    std::thread::id ender;
    m_graph->start(m_slots.emplace_back(m_pool->acquire()), {},
                   [&, add = m_ends.adder()](const kelm_result& result) {
                       ender = std::this_thread::get_id();
                       add(result);
                   });
    EXPECT_EQ(m_client->status().info().client_count, 1U);
    EXPECT_EQ(call.get(), KELM_SUCCESS);
    ASSERT_TRUE(m_ends.wait(1));
    EXPECT_NE(ender, reader);
    // Its deadline, and the end of the service, reach it too.
    EXPECT_TRUE(m_graph->infer(slot).ok());
    EXPECT_EQ(codeOf([&] { m_graph->infer(slot, {.deadline = 20ms}); }), KELM_TIMEOUT);
    EXPECT_EQ(codeOf([&] { m_graph->infer(slot); }), KELM_BUSY);  // long before the task's end
    EXPECT_TRUE(eventually([&] { return codeOf([&] { m_graph->infer(slot); }) == KELM_SUCCESS; }));
    auto last = startCalling([&] { return codeOf([&] { m_graph->infer(m_pool->acquire()); }); });
    service().signal(SIGKILL);
    (void)service().waitExit();
    EXPECT_THAT(last.get(), AnyOf(KELM_CONNECTION_LOST, KELM_NOT_CONNECTED));
}

TEST_F(QueueTest, EndOfTheConnectionEndsEachTaskOnce) {
    open(1000, 2);
    for (uint64_t i = 0; i < 6; ++i) submit(i);
    auto call = std::async(std::launch::async,
                           [&] { return codeOf([&] { m_graph->infer(m_pool->acquire()); }); });
    service().signal(SIGKILL);
    EXPECT_EQ(service().waitExit(), std::nullopt);
    ASSERT_TRUE(m_ends.wait(6));
    EXPECT_THAT(m_ends.errors(), Each(KELM_CONNECTION_LOST));
    EXPECT_THAT(call.get(), AnyOf(KELM_CONNECTION_LOST, KELM_NOT_CONNECTED));
    EXPECT_EQ(codeOf([&] { submit(6); }), KELM_NOT_CONNECTED);
    EXPECT_FALSE(m_client->isConnected());
    // The tasks may run on: their slots are given to no other.
    m_slots.clear();
    EXPECT_EQ(m_ends.cookies().size(), 6U);
    m_client.reset();  // before its graph
}

TEST_F(QueueTest, FreedGraphEndsWhatWaitsAndWaitsForTheRest) {
    open(200, 1);
    for (uint64_t i = 0; i < 3; ++i) submit(i);
    m_graph.reset();
    EXPECT_THAT(m_ends.cookies(), ElementsAre(1, 2, 0));
    EXPECT_THAT(m_ends.errors(), ElementsAre(KELM_CANCELED, KELM_CANCELED, KELM_SUCCESS));
    EXPECT_TRUE(eventually([&] { return m_client->status().info().graph_count == 0; }));
}

TEST_F(QueueTest, TasksEndInTimeWhileTheServiceReadsNothing) {
    constexpr uint32_t kBatch = 40;  // several fill the socket, from the ends of those before
    open(0, kBatch);
    service().signal(SIGSTOP);
    for (uint32_t i = 0; i < 10 * kBatch; ++i) {
        auto task = detail::sized<kelm_task>();
        task.deadline_ms = 200 * (1 + i / kBatch);
        m_graph->start(task, m_ends.adder());
    }
    EXPECT_TRUE(m_ends.wait(10 * kBatch));
    service().signal(SIGCONT);
    EXPECT_EQ(m_ends.cookies().size(), 10 * kBatch);
}

TEST_F(QueueTest, GraphThatAnotherHandleHasStaysWhenOneIsFreed) {
    open(0, 1);
    { const Graph again = m_client->load(std::as_bytes(std::span("graph"))); }
    EXPECT_TRUE(m_graph->infer(m_pool->acquire()).ok());
}

TEST_F(QueueTest, SlotOfATimedOutTaskComesBackWithItsFreedGraph) {
    open(200, 1);
    Client other({.socketPath = path()});
    const auto load = [](Client& client, const bool& isShared) {
        return client.load(std::as_bytes(std::span(&isShared, 1)));
    };
    const Graph shared = load(other, true);
    for (const bool isShared : {false, true}) {
        std::optional<Graph> graph = load(*m_client, isShared);
        Pool pool = graph->makePool(0, 1);
        EXPECT_EQ(codeOf([&] { graph->infer(pool.acquire(), {.deadline = 20ms}); }), KELM_TIMEOUT);
        graph.reset();
        EXPECT_EQ(codeOf([&] { (void)pool.acquire(); }), KELM_SUCCESS) << isShared;
    }
}

TEST_F(QueueTest, TasksThatTheServiceDropsWithAnotherGraphAreSentAgain) {
    open(150, 32);
    Client other({.socketPath = path()});
    const auto load = [](Client& client) {
        return client.load(std::as_bytes(std::span("shared")));
    };
    const Graph kept = load(other);
    std::optional<Graph> shared = load(*m_client);
    for (uint64_t i = 0; i < 20; ++i) submit(i);
    shared.reset();
    ASSERT_TRUE(m_ends.wait(20));
    EXPECT_THAT(m_ends.errors(), Each(KELM_SUCCESS));
    EXPECT_EQ(m_ends.cookies().size(), 20U);
}

TEST_F(QueueTest, FreedGraphHasNoCallbackLeft) {
    open(300, 1);
    submit(0);
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    auto task = detail::sized<kelm_task>();
    task.deadline_ms = 20;
    m_graph->start(task, [&](const kelm_result&) {  // on the timer's thread
        entered.set_value();
        leave.get_future().wait();
        left = true;
    });
    entered.get_future().wait();
    auto freed = std::async(std::launch::async, [&] {
        m_graph.reset();
        return left.load();
    });
    ASSERT_TRUE(m_ends.wait(1));
    EXPECT_EQ(freed.wait_for(500ms), std::future_status::timeout);
    leave.set_value();
    EXPECT_TRUE(freed.get());
}

TEST_F(QueueTest, ChildOfForkEndsNothingOfItsParent) {
    open(0, 1);
    const Slot slot = m_pool->acquire();
    const pid_t child = ::fork();
    if (child == 0) {
        const bool refused = kelm_graph_free(m_graph->get()) == KELM_INVALID_ARGUMENT &&
                             kelm_close(m_client->get()) == KELM_INVALID_ARGUMENT;
        kelm_slot_release(slot.get());
        ::_exit(refused ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(m_graph->infer(slot).ok());
}

TEST_F(QueueTest, ThreadThatCannotBeHadIsMissedByTheLoadAndByNoTask) {
    open(20, 1);
    Client other({.socketPath = path()});
    pthread_attr_t attributes;  // of new threads: stacks for which there are not enough addresses
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, size_t{1} << 46);
    EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
    EXPECT_EQ(codeOf([&] { other.load(std::as_bytes(std::span("graph"))); }), KELM_SYSTEM_ERROR);
    for (const uint64_t cookie : {0, 1}) EXPECT_EQ(codeOf([&] { submit(cookie); }), KELM_SUCCESS);
    EXPECT_TRUE(m_ends.wait(2));
    ::pthread_attr_setstacksize(&attributes, size_t{1} << 20);
    EXPECT_EQ(::pthread_setattr_default_np(&attributes), 0);
}

TEST_F(QueueTest, MistakesAreRefusedBeforeAnythingHappens) {
    open(300, 1);
    submit(0);
    const auto change = [&](void (*apply)(kelm_task&)) {
        auto task = Graph::makeTask(m_slots[0], {});
        apply(task);
        return kelm_infer_async(m_graph->get(), &task, nullptr);
    };
    EXPECT_EQ(change([](kelm_task&) {}), KELM_BUSY);  // its slot may still be written into
    const std::pair<const char*, void (*)(kelm_task&)> rows[] = {
        {"no size", [](kelm_task& task) { task.size = 0; }},
        {"priority", [](kelm_task& task) { task.priority = 16; }},
        {"deadline", [](kelm_task& task) { task.deadline_ms = -1; }},
        {"block", [](kelm_task& task) { task.aux_flags = 8; }},
        {"no aux buffer", [](kelm_task& task) { task.aux_flags = KELM_AUX_THERMAL; }},
        {"kind", [](kelm_task& task) { task.slot = nullptr, task.input.kind = 7; }},
        {"descriptor", [](kelm_task& task) { task.slot = nullptr, task.output.kind = 1; }},
        {"name", [](kelm_task& task) { task.slot = nullptr, task.aux.kind = 2; }},
    };
    for (const auto& [name, apply] : rows) {
        EXPECT_EQ(change(apply), KELM_INVALID_ARGUMENT) << name;
        EXPECT_STRNE(kelm_last_error(), "") << name;
    }
    auto task = detail::sized<kelm_task>();
    task.input = {.kind = KELM_TENSOR_DESCRIPTOR, .fd = 1000, .name = nullptr, .bytes = 1};
    EXPECT_EQ(kelm_infer(m_graph->get(), &task, nullptr), KELM_SYSTEM_ERROR);
    EXPECT_NE(std::string(kelm_last_error()).find("descriptor 1000"), std::string::npos);
    EXPECT_EQ(kelm_infer(nullptr, nullptr, nullptr), KELM_INVALID_ARGUMENT);
    ASSERT_TRUE(m_ends.wait(1));
}

TEST_F(QueueTest, StructsOfOtherVersionsAreReadAsFarAsBothKnowThem) {
    open(0, 1);
    struct Newer {
        kelm_task task;
        uint64_t later;
    } newer{Graph::makeTask(m_slots.emplace_back(m_pool->acquire()), {}), 0};
    newer.task.size = sizeof(newer);
    EXPECT_EQ(kelm_infer(m_graph->get(), &newer.task, nullptr), KELM_SUCCESS);
    newer.later = 1;
    EXPECT_EQ(kelm_infer(m_graph->get(), &newer.task, nullptr), KELM_INVALID_ARGUMENT);
    // What lies behind an older program's struct is neither read nor written.
    newer.task.size = offsetof(kelm_task, aux_flags);
    newer.task.aux_flags = 8;
    struct {
        kelm_result result;
        uint64_t behind;
    } older{{}, 7};
    older.result.size = offsetof(kelm_result, text);
    older.result.cookie = 7;
    EXPECT_EQ(kelm_infer(m_graph->get(), &newer.task, &older.result), KELM_SUCCESS);
    EXPECT_EQ(older.result.cookie, 7U);
    older.result.size = sizeof(older);
    EXPECT_EQ(kelm_infer(m_graph->get(), &newer.task, &older.result), KELM_SUCCESS);
    EXPECT_EQ(older.behind, 0U);
}

TEST_F(QueueTest, AuxiliaryBlocksAreFoundAndCutOff) {
    open(0, 1);
    constexpr uint32_t kFlags = KELM_AUX_TIME_TAKEN | KELM_AUX_THERMAL;
    const Slot slot = m_graph->makePool(kFlags).acquire();
    ASSERT_EQ(slot.aux().size(), 300U + 104U);
    EXPECT_TRUE(m_graph->infer(slot, {.auxFlags = kFlags}).ok());
    // The simulated devices of the service write nothing.
    const std::span<float> floats = Slot::as<float>(slot.aux());
    floats[74] = 1.5F;
    floats[75] = 36.5F;
    const kelm_aux whole = m_graph->decode(slot.aux(), kFlags);
    EXPECT_EQ(whole.time_taken_count, 75U);
    EXPECT_EQ(whole.time_taken_ms[74], 1.5F);
    EXPECT_EQ(whole.celsius, 36.5F);
    EXPECT_EQ(whole.debug, nullptr);
    const kelm_aux cut = m_graph->decode(slot.aux().first(302), kFlags | KELM_AUX_DEBUG);
    EXPECT_EQ(cut.thermal_bytes, 2U);
    EXPECT_TRUE(std::isnan(cut.celsius));
    EXPECT_EQ(cut.debug_bytes, 0U);
    EXPECT_EQ(m_graph->decode(slot.aux(), KELM_AUX_THERMAL).celsius, floats[0]);
    EXPECT_EQ(codeOf([&] { m_graph->decode(slot.aux().subspan(1), kFlags); }),
              KELM_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace kelm
