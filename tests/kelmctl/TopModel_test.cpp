#include "tools/kelmctl/TopModel.h"

namespace kelm::ctl {
namespace {

class TopModelTest : public ::testing::Test {
 protected:
    static TopModel::Time at(double seconds) {
        return TopModel::Time(
            std::chrono::milliseconds(1000000 + static_cast<int64_t>(seconds * 1000.0)));
    }
    void setClients(const std::vector<client::ClientStatus>& clients, uint32_t count, double time) {
        client::ServiceStatus status;
        status.clientCount = count;
        status.clients = clients;
        m_model.setStatus(status, at(time));
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

    TopModel m_model;
};

TEST_F(TopModelTest, ClientsBeyondTheRowsOfTheStatusComeFromTheSnapshot) {
    const auto rates = [this] { return values(TopSection::kClients, TopValue::kRate); };
    client::Snapshot snapshot;
    snapshot.clients = {{1, "a", 2, 0, 100, 5}, {2, "a", 2, 0, 100, 6}, {3, "b", 2, 0, 100, 7}};
    setClients({{"a", 10.0f}}, 3, 0);
    m_model.setSnapshot(snapshot, at(0));
    EXPECT_THAT(names(TopSection::kClients), ElementsAre("a", "a", "b"));
    EXPECT_THAT(values(TopSection::kClients, TopValue::kWaiting), ElementsAre(5.0, 6.0, 7.0));
    EXPECT_THAT(rates(), ElementsAre(10.0, std::nullopt, std::nullopt));
    snapshot.clients[1].inferences = 150;
    snapshot.clients[2].inferences = 20;  // another one under this id
    m_model.setSnapshot(snapshot, at(5));
    EXPECT_THAT(rates(), ElementsAre(10.0, 10.0, std::nullopt));
    // Right behind it, as for a tool that connects: too short to measure by.
    snapshot.clients[1].inferences = 151;
    m_model.setSnapshot(snapshot, at(5.001));
    EXPECT_THAT(rates(), ElementsAre(10.0, 10.0, std::nullopt));
    // The status has all there are: the others have left since the snapshot.
    setClients({{"a", 11.0f}}, 1, 6);
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
    const std::pair<TopOrder, std::vector<std::string>> rows[] = {
        {{0, false, ""}, {"Fast", "also fast", "slow"}},
        {{0, true, ""}, {"slow", "also fast", "Fast"}},
        {{1, true, ""}, {"slow", "Fast", "also fast"}},
        {{3, false, ""}, {"Fast", "slow", "also fast"}},
        {{3, false, "FAST"}, {"Fast", "also fast"}},
        {{5, false, ""}, {"Fast", "also fast", "slow"}},  // unknown values: by name
    };
    for (const auto& [order, expected] : rows) {
        EXPECT_EQ(names(TopSection::kGraphs, order), expected) << order.column;
    }
}

TEST_F(TopModelTest, HistoryStaysWithItsRowAndCountsStatusesOnly) {
    for (int second = 0; second < 3; ++second) {
        setClients({{"b", static_cast<float>(second)}, {"a", 2.0f}}, 2, second);
        m_model.setSnapshot({}, at(second));
    }
    setClients({{"b", 4.0f}}, 1, 3);
    const auto line = [this](size_t history, size_t width, bool utf8) {
        return m_model.rows(TopSection::kClients, {}).at(0)->histories[history].line(width, utf8);
    };
    EXPECT_EQ(line(0, 6, false), U"  _:=#");
    EXPECT_EQ(line(0, 2, false), U"=#");
    EXPECT_EQ(line(1, 6, true), U"      ");  // not known
    for (int i = 0; i < 1000; ++i) setClients({{"b", 0.0f}}, 1, 4 + i);
    EXPECT_EQ(line(0, 200, true), std::u32string(80, U' ') + std::u32string(120, U'\u2581'));
}

}  // namespace
}  // namespace kelm::ctl
