#include "tools/kelmctl/Histogram.h"

namespace kelm::ctl {
namespace {

TEST(HistogramTest, PercentilesAreWithinTwoPercentOfTheSortedList) {
    std::mt19937_64 random(1);
    const auto draw = [&random](auto distribution) {
        return [&random, distribution]() mutable { return distribution(random); };
    };
    const std::pair<const char*, std::function<double()>> rows[] = {
        {"uniform", draw(std::uniform_real_distribution<>(0.0, 1e6))},
        {"exponential", draw(std::exponential_distribution<>(1e-7))},
        {"log-normal, over six decades", draw(std::lognormal_distribution<>(14.0, 3.0))},
        {"two humps", [&random] { return random() % 50 == 0 ? 3e10 : 2e5 + double(random() % 9); }},
        {"small whole numbers", draw(std::uniform_real_distribution<>(0.0, 200.0))},
        {"one value", [] { return 123456789.0; }},
        {"the largest", [] { return std::nextafter(std::ldexp(1.0, 64), 0.0); }}};
    for (const auto& [name, next] : rows) {
        SCOPED_TRACE(name);
        // Of the later part alone, as it is told from two copies of a histogram that went on.
        Histogram histogram;
        Histogram earlier;
        std::vector<uint64_t> sorted;
        for (int i = 0; i < 5000; ++i) histogram.add(static_cast<uint64_t>(next()));
        earlier.addAll(histogram);
        for (int i = 0; i < 20000; ++i) sorted.push_back(static_cast<uint64_t>(next()));
        for (const uint64_t value : sorted) histogram.add(value);
        histogram.removeAll(earlier);
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(histogram.count(), sorted.size());
        for (const double quantile : {0.001, 0.01, 0.5, 0.9, 0.99, 0.999, 1.0}) {
            const auto rank = std::ceil(quantile * static_cast<double>(sorted.size()));
            const auto exact = static_cast<double>(sorted[static_cast<size_t>(rank) - 1]);
            const auto told = static_cast<double>(histogram.percentile(quantile));
            EXPECT_GE(told, exact) << quantile;
            EXPECT_LE(told, 1.02 * exact) << quantile;
        }
        uint64_t listed = 0;
        for (const auto& [most, entries] : histogram.buckets()) listed += entries;
        EXPECT_EQ(listed, sorted.size());
    }
}

}  // namespace
}  // namespace kelm::ctl
