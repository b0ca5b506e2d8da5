#include "tools/kelmctl/TopModel.h"

namespace kelm::ctl {
namespace {

using ::testing::ElementsAre;

class TopModelTest : public ::testing::Test {
 protected:
    static TopModel::Time at(double seconds) {
        return TopModel::Time(
            std::chrono::milliseconds(1000000 + static_cast<int64_t>(seconds * 1000.0)));
    }
    static client::ServiceStatus statusOf(const std::vector<client::ClientStatus>& clients,
                                          uint32_t count) {
        client::ServiceStatus status;
        status.clientCount = count;
        status.clients = clients;
        return status;
    }
    static client::ClientSnapshot snapshotOf(uint64_t id, const std::string& name,
                                             uint64_t inferences, uint64_t waiting = 0) {
        return {id, name, 2, 0, inferences, waiting};
    }
    std::vector<std::string> names(TopSection section, const TopOrder& order = {}) const {
        std::vector<std::string> result;
        for (const TopRow* row : m_model.rows(section, order)) result.push_back(row->name);
        return result;
    }
    std::vector<std::optional<double>> values(TopSection section, TopValue value) const {
        std::vector<std::optional<double>> result;
        for (const TopRow* row : m_model.rows(section, {})) result.push_back(row->value(value));
        return result;
    }
    const TopRow& only(TopSection section) const { return *m_model.rows(section, {}).at(0); }

    TopModel m_model;
};

TEST_F(TopModelTest, ClientsBeyondTheRowsOfTheStatusComeFromTheSnapshot) {
    client::Snapshot snapshot;
    snapshot.clients = {snapshotOf(1, "a", 100, 5), snapshotOf(2, "a", 100, 6),
                        snapshotOf(3, "b", 100, 7)};
    m_model.setStatus(statusOf({{"a", 10.0f}}, 3), at(0));
    m_model.setSnapshot(snapshot, at(0));
    EXPECT_THAT(names(TopSection::kClients), ElementsAre("a", "a", "b"));
    EXPECT_THAT(values(TopSection::kClients, TopValue::kWaiting), ElementsAre(5.0, 6.0, 7.0));
    EXPECT_THAT(values(TopSection::kClients, TopValue::kRate),
                ElementsAre(10.0, std::nullopt, std::nullopt));
    snapshot.clients[1].inferences = 150;
    snapshot.clients[2].inferences = 20;  // another one under this id
    m_model.setSnapshot(snapshot, at(5));
    EXPECT_THAT(values(TopSection::kClients, TopValue::kRate),
                ElementsAre(10.0, 10.0, std::nullopt));
    // Right behind it, as for a tool that connects: too short to measure by.
    snapshot.clients[1].inferences = 151;
    m_model.setSnapshot(snapshot, at(5.001));
    EXPECT_THAT(values(TopSection::kClients, TopValue::kRate),
                ElementsAre(10.0, 10.0, std::nullopt));
    // The status has all there are: the others have left since the snapshot.
    m_model.setStatus(statusOf({{"a", 11.0f}}, 1), at(6));
    EXPECT_THAT(names(TopSection::kClients), ElementsAre("a"));
}

TEST_F(TopModelTest, DevicesOfTheSnapshotAreTakenByTheirId) {
    client::ServiceStatus status;
    status.devices = {{"first", 1.0f, "net", 30.0f, 10, 0}, {"second", 2.0f, "net", 31.0f, 20, 0}};
    m_model.setStatus(status, at(0));
    client::Snapshot snapshot;
    snapshot.devices.resize(1);  // the other's row is written over
    snapshot.devices[0].id = 20;
    snapshot.devices[0].throttlingLevel = 2;
    snapshot.devices[0].current = {{"net", "", 5, 0.0f}, {"other", "", 6, 0.0f}};
    m_model.setSnapshot(snapshot, at(0));
    EXPECT_THAT(values(TopSection::kDevices, TopValue::kThrottling),
                ElementsAre(std::nullopt, 2.0));
    EXPECT_THAT(values(TopSection::kDevices, TopValue::kInferences),
                ElementsAre(std::nullopt, 11.0));
    EXPECT_EQ(m_model.rows(TopSection::kDevices, {})[1]->detail, "net +1");
    m_model.setSnapshotGone("lost");
    m_model.setStatus(status, at(1));
    EXPECT_THAT(values(TopSection::kDevices, TopValue::kThrottling),
                ElementsAre(std::nullopt, std::nullopt));
}

TEST_F(TopModelTest, RowsComeInOrderAndPassTheFilter) {
    client::ServiceStatus status;
    status.graphs = {{"slow", 1.0f, 5.0f}, {"Fast", 9.0f, 9.0f}, {"also fast", 9.0f, 4.0f}};
    m_model.setStatus(status, at(0));
    const struct {
        TopOrder order;
        std::vector<std::string> names;
    } rows[] = {
        {{0, false, ""}, {"Fast", "also fast", "slow"}},
        {{0, true, ""}, {"slow", "also fast", "Fast"}},
        {{1, false, ""}, {"Fast", "also fast", "slow"}},
        {{1, true, ""}, {"slow", "Fast", "also fast"}},
        {{3, false, ""}, {"Fast", "slow", "also fast"}},
        {{3, false, "FAST"}, {"Fast", "also fast"}},
        {{5, false, ""}, {"Fast", "also fast", "slow"}},  // unknown values: by name
        {{0, false, "none"}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.order.column);
        EXPECT_EQ(names(TopSection::kGraphs, row.order), row.names);
    }
}

TEST_F(TopModelTest, HistoryStaysWithItsRowAndCountsStatusesOnly) {
    for (int second = 0; second < 3; ++second) {
        const float rate = static_cast<float>(second);
        m_model.setStatus(statusOf({{"b", rate}, {"a", 2.0f}}, 2), at(second));
        m_model.setSnapshot({}, at(second));
    }
    m_model.setStatus(statusOf({{"b", 4.0f}}, 1), at(3));
    EXPECT_EQ(only(TopSection::kClients).histories[0].line(6, false), U"  _:=#");
    EXPECT_EQ(only(TopSection::kClients).histories[0].line(2, false), U"=#");
    EXPECT_EQ(only(TopSection::kClients).histories[1].line(6, true), U"      ");  // not known
    for (int i = 0; i < 1000; ++i) m_model.setStatus(statusOf({{"b", 0.0f}}, 1), at(4 + i));
    EXPECT_EQ(only(TopSection::kClients).histories[0].line(200, true),
              std::u32string(80, U' ') + std::u32string(120, U'\u2581'));
}

TEST_F(TopModelTest, LossAndReturnOfTheServiceHaveTheirTimes) {
    EXPECT_FALSE(m_model.service().known);
    m_model.setGone("none there", at(0));
    m_model.setGone("still none", at(1));
    EXPECT_EQ(m_model.service().since, at(0));
    EXPECT_EQ(m_model.service().why, "still none");
    m_model.setStatus(statusOf({{"a", 1.0f}}, 1), at(5));
    m_model.setStatus(statusOf({{"a", 1.0f}}, 1), at(6));
    EXPECT_TRUE(m_model.service().up);
    EXPECT_EQ(m_model.service().since, at(5));
    EXPECT_EQ(m_model.service().goneSince, at(0));
    m_model.setGone("lost", at(7));
    EXPECT_THAT(names(TopSection::kClients), ElementsAre("a"));  // as last seen
}

}  // namespace
}  // namespace kelm::ctl
