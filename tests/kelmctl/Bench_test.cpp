#include "tools/kelmctl/Arrivals.h"
#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/RateSearch.h"
#include "tools/kelmctl/Stability.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {
namespace {

TEST(BenchTest, SearchEndsAtTheHighestRateThatHolds) {
    for (const double limit : {3.0, 90.0, 100.0, 101.0, 5000.0}) {
        SCOPED_TRACE(limit);
        RateSearch search(100.0, 2.0);
        int steps = 0;
        for (; const auto rate = search.next(); ++steps) search.tell(*rate <= limit);
        EXPECT_LE(search.found(), limit);
        EXPECT_GE(search.found(), limit / 1.05);
        EXPECT_LT(steps, 15);
    }
    for (const bool held : {false, true}) {  // one that finds no bound ends all the same
        RateSearch search(100.0, 2.0);
        while (search.next()) search.tell(held);
        EXPECT_EQ(search.found().has_value(), held);
    }
}

TEST(BenchTest, StableAreThreeWindowsWithinATenth) {
    using Windows = std::vector<Stability::Window>;
    const std::pair<Windows, bool> rows[] = {{{{100, 5}, {105, 5}}, false},
                                             {{{100, 5}, {105, 5.2}, {109, 5.4}}, true},
                                             {{{100, 5}, {105, 5}, {112, 5}}, false},
                                             {{{100, 5}, {100, 5}, {100, 5.6}}, false},
                                             {{{9, 50}, {100, 5}, {105, 5}, {95.5, 5}}, true},
                                             {{{0, 0}, {0, 0}, {0, 0}}, false}};
    for (const auto& [windows, stable] : rows) {
        Stability stability;
        for (const auto& window : windows) stability.add(window);
        EXPECT_EQ(stability.isStable(), stable)
            << testing::PrintToString(&windows - &rows[0].first);
    }
}

TEST(BenchTest, ArrivalsKeepTheirRate) {
    constexpr int kRequests = 100000;
    const Arrivals::TimePoint start;
    for (Arrivals arrivals :
         {Arrivals::evenly(start, 3000.0, 0.5), Arrivals::poisson(start, 3000.0, 7)}) {
        Arrivals::TimePoint last = start;
        for (int i = 0; i < kRequests; ++i, arrivals.pop()) {
            EXPECT_GE(arrivals.due(), last);
            last = arrivals.due();
        }
        EXPECT_NEAR(std::chrono::duration<double>(last - start).count(), kRequests / 3000.0, 0.4);
    }
}

TEST(BenchTest, ContradictionsAndWhatIsNoNumberAreRefused) {
    const std::pair<std::function<void(BenchOptions&)>, const char*> rows[] = {
        {[](auto& options) { options.rate = NAN; }, "--rate takes"},
        {[](auto& options) { options.rate = -1.0; }, "--rate takes"},
        {[](auto& options) { options.rate = 0.01; }, "no request is due"},
        {[](auto& options) { options.warmup = NAN; }, "--warmup takes"},
        {[](auto& options) { options.seconds = HUGE_VAL; }, "--seconds takes"},
        {[](auto& options) { options.seconds = options.untilStable = 5.0; }, "not both"},
        {[](auto& options) { options.seconds = options.count = 5; }, "not both"},
        {[](auto& options) { options.count = -1; }, "--count is"},
        {[](auto& options) { options.untilStable = 2.0; }, "three windows"},
        {[](auto& options) { options.window = 2.0; }, "--until-stable only"},
        {[](auto& options) { options.poisson = true; }, "--poisson needs"},
        {[](auto& options) { options.findRate = true; }, "needs --p99"},
        {[](auto& options) { options.p99 = 5.0; }, "--find-rate only"},
        {[](auto& options) { options.findRate = true, options.p99 = NAN; }, "--p99 takes"},
        {[](auto& options) { options.findRate = true, options.p99 = options.rate = 5; }, "leave"},
        {[](auto& options) { options.assign = true, options.weights = {"1,1"}; }, "not both"},
        {[](auto& options) { options.assign = true, options.clients = 1; }, "raise --clients"},
        {[](auto& options) { options.weights = {"0,0"}; }, "above 0"},
        {[](auto& options) { options.weights = {"1"}; }, "one number for each graph"},
        {[](auto& options) { options.weights = {"1,2x"}; }, "'2x'"},
        {[](auto& options) { options.depth = "1,2", options.weights = {"1,2"}; },
         "--weights needs"},
        {[](auto& options) { options.depth = "1,2,3"; }, "--depth is one number"},
        {[](auto& options) { options.depth = "1,"; }, "not ''"},
        {[](auto& options) { options.maxErrors = -1; }, "--max-errors is"}};
    for (const auto& [change, words] : rows) {
        SCOPED_TRACE(words);
        BenchOptions options;
        options.graphs = {"first", "second"};
        EXPECT_NO_THROW(BenchSetup{options});
        change(options);
        try {
            const BenchSetup setup(options);
            ADD_FAILURE() << "is taken";
        } catch (const UsageError& error) {
            EXPECT_THAT(error.what(), HasSubstr(words));
        }
    }
}

}  // namespace
}  // namespace kelm::ctl
