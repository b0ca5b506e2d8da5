#include "tools/kelmctl/export/ExportCommand.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>

#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/UsageError.h"
#include "tools/kelmctl/export/ExportSampler.h"
#include "tools/kelmctl/export/ExportServer.h"
#include "tools/kelmctl/export/GraphProbe.h"
#include "tools/kelmctl/export/Metrics.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;
using Probes = std::vector<std::unique_ptr<GraphProbe>>;

double cpuSeconds() {
    rusage usage{};
    (void)::getrusage(RUSAGE_SELF, &usage);
    constexpr double kMicros = 1e6;
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / kMicros;
}

// What the exporter answers; a page beside it if there is one.
//
// Threads: any. Borrows the feed, the probes and the page. Locks: m_mutex, a leaf.
class Answers {
 public:
    Answers(ExportFeed& feed, const Probes& probes) : m_feed(feed), m_probes(probes) {}

    ExportRoutes routes(const PageRoutes* page) {
        ExportRoutes routes;
        routes.answers = {{"/metrics", [this] { return metrics(); }},
                          {"/livez", [this] { return livez(); }},
                          {"/readyz", [this] { return readyz(); }}};
        if (page == nullptr) return routes;
        routes.answers["/"] = [this, page] { return page->page(*newest()); };
        routes.answers["/snapshot.json"] = [this, page] { return page->snapshotJson(*newest()); };
        routes.event = [page](const ExportSnapshot& snapshot) { return page->event(snapshot); };
        return routes;
    }

 private:
    // The first request may come before the first look has ended.
    ExportFeed::Shared newest() {
        constexpr std::chrono::seconds kFirstLook{3};
        if (m_feed.newest()->number == 0) (void)m_feed.waitNewer(0, kFirstLook);
        return m_feed.newest();
    }

    HttpAnswer metrics() {
        const auto begin = Clock::now();
        const ExportFeed::Shared snapshot = newest();
        std::vector<ProbeResults> probes;
        for (const auto& probe : m_probes) probes.push_back(probe->results());
        ExporterFacts facts;
        {
            MutexLock lock(m_mutex);
            facts = m_facts;
        }
        facts.cpuSeconds = cpuSeconds();
        HttpAnswer answer{.type = "text/plain; version=0.0.4; charset=utf-8",
                          .body = metricsText({*snapshot, std::move(probes), facts})};
        MutexLock lock(m_mutex);
        ++m_facts.scrapes;
        m_facts.scrapeSeconds += std::chrono::duration<double>(Clock::now() - begin).count();
        return answer;
    }

    HttpAnswer livez() {
        constexpr std::chrono::seconds kSlowLook{15};
        if (m_feed.age() < kSlowLook) return {.body = "ok\n"};
        return {.status = 503, .body = "the exporter has not looked at the service for 15 s\n"};
    }

    // Without a probe the service's word is taken for it.
    HttpAnswer readyz() {
        for (const auto& probe : m_probes) {
            const ProbeResults results = probe->results();
            if (results.isLastGood) continue;
            const std::string why = results.failures > 0 ? results.why : "not probed yet";
            return {.status = 503, .body = results.graph + ": " + why + "\n"};
        }
        if (!m_probes.empty()) return {.body = "ok\n"};
        const ExportFeed::Shared snapshot = newest();
        if (!snapshot->isUp) return {.status = 503, .body = snapshot->why + "\n"};
        if (snapshot->service.deviceCount > 0) return {.body = "ok\n"};
        return {.status = 503, .body = "the service has no device\n"};
    }

    ExportFeed& m_feed;
    const Probes& m_probes;
    Mutex m_mutex;
    ExporterFacts m_facts GUARDED_BY(m_mutex);
};

Probes startProbes(const ExportOptions& options) {
    constexpr double kMillis = 1000.0;
    const std::chrono::milliseconds interval(static_cast<int64_t>(options.probeInterval * kMillis));
    Probes probes;
    for (const std::string& graph : options.probes) {
        probes.push_back(std::make_unique<GraphProbe>(graph, interval));
    }
    return probes;
}

void check(const ExportOptions& options) {
    constexpr double kLeast = 0.1;
    constexpr double kMost = 86400.0;
    if (!(options.probeInterval >= kLeast && options.probeInterval <= kMost)) {
        throw UsageError("probe at intervals of 0.1 to 86400 seconds");
    }
    std::set<std::string> graphs;
    for (const std::string& graph : options.probes) {
        if (!graphs.insert(graph).second) throw UsageError("probe " + graph + " only once");
        if (!std::ifstream(graph)) {
            throw std::runtime_error("cannot read " + graph +
                                     "; give --probe the file of a compiled graph");
        }
    }
}

void serve(const ListenAddress& address, const ExportOptions& options, Interruption& interruption) {
    ExportFeed feed;
    const std::unique_ptr<PageRoutes> page = makePageRoutes();
    const Probes probes = startProbes(options);
    Answers answers(feed, probes);
    const ExportServer server(address, feed, answers.routes(page.get()));
    const ExportSampler sampler(interruption, feed, page.get());
    std::cout << "listening on port " << server.port() << std::endl;
    while (interruption.sleepUntil(Clock::now() + std::chrono::hours(1))) {
    }
    for (const auto& probe : probes) probe->stop();
}

}  // namespace

int runExport(const ExportOptions& options) {
    const ListenAddress address(options.listen);
    check(options);
    Interruption interruption;
    return interruption.run([&] {
        serve(address, options, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
