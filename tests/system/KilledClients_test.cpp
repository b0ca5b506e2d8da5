#include <array>
#include <list>
#include <random>

#include "system/ChildProcess.h"
#include "system/LoadClient.h"
#include "system/SystemFixture.h"

namespace kelm {
namespace {

// A client that is to be killed: every step that it takes is counted, so that the moment can be
// chosen. It sends its graph in pieces and reads little.
class DoomedClient {
 public:
    DoomedClient(const std::string& path, int index, std::atomic<int>& steps)
        : m_index(index), m_steps(steps), m_raw(path) {}

    std::string run() {
        step();
        const uint64_t id = m_raw.registerClient("doomed");
        step();
        const uint64_t graph = createGraph(id);
        step();
        for (uint64_t sequence = 1; m_raw.send(RawClient::inferRequest(id, graph, sequence));
             ++sequence) {
            step();
            if (sequence % 3 == 0) (void)m_raw.receive();
        }
        return "the service closed the connection";
    }

    // At any of these the process may be killed.
    static constexpr int kLastStep = 60;

 private:
    static constexpr size_t kPieces = 10;
    static constexpr size_t kPieceSize = 2000;
    static constexpr int kKindsOfGraphs = 8;

    void step() { ++m_steps; }

    uint64_t createGraph(uint64_t id) {
        auto request = RawClient::request<KelmMsgReqCreateGraph>(KELM_MESSAGE_CREATE_GRAPH_REQ);
        request.clientId = id;
        request.head.base.dataNum = 1;
        request.head.base.dataSize[0] = kPieces * kPieceSize;
        (void)m_raw.send(request);  // whether the service is there is seen at the end
        const std::string piece(kPieceSize, static_cast<char>('a' + m_index % kKindsOfGraphs));
        for (size_t i = 0; i < kPieces; ++i) {
            step();
            (void)m_raw.sendBytes(piece.data(), piece.size());
        }
        step();
        const auto answer = m_raw.receiveType(KELM_MESSAGE_CREATE_GRAPH_RSP);
        return answer ? answer->as<KelmMsgRspCreateGraph>().graphId : 0;
    }

    const int m_index;
    std::atomic<int>& m_steps;
    RawClient m_raw;
};

class KilledClientsTest : public SystemFixture {
 protected:
    static constexpr int kVictims = 300;
    static constexpr size_t kAtOnce = 12;

    struct Board {
        LoadBoard load;
        std::array<std::atomic<int>, kVictims> steps{};
    };
    struct Victim {
        int index;
        int lastStep;
        ChildProcess process;
    };

    void startSurvivors() {
        for (int i = 0; i < 2; ++i) {
            LoadPlan plan;
            plan.name = "survivor";
            plan.graphs.resize(1);
            m_survivors.emplace_back(
                [this, plan] { return LoadClient(path(), plan, m_board->load).run(); });
        }
    }

    // Starts client after client and kills each at its moment.
    void killClients(int number) {
        std::mt19937 random(20240917);  // fixed, so that a finding comes again
        int started = 0;
        const auto turn = [&] {
            while (started < number && m_victims.size() < kAtOnce) {
                const int last = static_cast<int>(random() % DoomedClient::kLastStep);
                startVictim(started++, last);
            }
            std::erase_if(m_victims, [this](const Victim& victim) {
                return m_board->steps[static_cast<size_t>(victim.index)] >= victim.lastStep;
            });
            return m_victims.empty();
        };
        ASSERT_TRUE(eventually(turn, std::chrono::minutes(3)));
    }

    void startVictim(int index, int lastStep) {
        m_victims.push_back({index, lastStep, ChildProcess([this, index] {
                                 auto& steps = m_board->steps[static_cast<size_t>(index)];
                                 return DoomedClient(path(), index, steps).run();
                             })});
    }

    SharedMemory<Board> m_board;
    std::list<Victim> m_victims;  // destroyed means killed
    std::vector<ChildProcess> m_survivors;
};

TEST_F(KilledClientsTest, VanishedClientTakesFromOthersOrLeavesSomethingBehind) {
    start(0);
    const size_t descriptorsBefore = descriptors();
    const size_t threadsBefore = threads();
    startSurvivors();
    ASSERT_NO_FATAL_FAILURE(killClients(kVictims));
    m_board->load.stop = true;
    for (ChildProcess& survivor : m_survivors) EXPECT_EQ(survivor.wait(), "") << lastLines();
    EXPECT_GT(m_board->load.done, 0U);
    EXPECT_TRUE(serves());
    EXPECT_TRUE(eventually([&] { return descriptors() == descriptorsBefore; }))
        << descriptors() << " and not " << descriptorsBefore;
    // A thread of the start may still have been there.
    EXPECT_TRUE(eventually([&] { return threads() <= threadsBefore; }))
        << threads() << " and not " << threadsBefore;
}

TEST_F(KilledClientsTest, StopAmongVanishingClientsHangsOrFails) {
    start(0);
    startSurvivors();
    ASSERT_NO_FATAL_FAILURE(killClients(kVictims / 3));
    for (int i = 0; i < static_cast<int>(kAtOnce); ++i) {
        startVictim(i, DoomedClient::kLastStep);
    }
    endService();
    for (ChildProcess& survivor : m_survivors) EXPECT_EQ(survivor.wait(), LoadClient::kLost);
}

}  // namespace
}  // namespace kelm
