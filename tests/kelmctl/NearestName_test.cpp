#include "tools/kelmctl/NearestName.h"

namespace kelm::ctl {
namespace {

TEST(NearestNameTest, SlipsOfTheHandAreFoundOut) {
    const std::vector<std::string> names{"infer", "bench", "status", "top", "trace", "wait-ready"};
    const std::pair<const char*, const char*> rows[] = {
        {"bench", "bench"}, {"infr", "infer"}, {"inferr", "infer"},
        {"benhc", "bench"}, {"pto", "top"},    {"waitready", "wait-ready"},
        {"tracy", "trace"}, {"", "top"},       {"xstats", "status"}};
    for (const auto& [word, name] : rows) {
        SCOPED_TRACE(word);
        EXPECT_EQ(findNearest(word, names), name);
    }
    // An exchange is one step, not two.
    EXPECT_EQ(findNearest("ab", {"axc", "ba"}), "ba");
}

}  // namespace
}  // namespace kelm::ctl
