#include "tools/kelmctl/export/ExportSampler.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/ProcessFacts.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;

// A service that stands still is one that is down.
constexpr client::Deadline kDeadline{2000};
// Those of clients and devices stand between the moves.
constexpr size_t kMaxEvents = 200;

// More exact than what the service tells of its memory, where its process is to be seen.
void addFacts(ExportedService& service) {
    if (!service.pid) return;
    constexpr uint64_t kKilobyte = 1024;
    const ProcessFacts facts(*service.pid);
    if (const auto size = facts.statusNumber("VmRSS")) service.residentBytes = *size * kKilobyte;
    if (const auto size = facts.statusNumber("VmSize")) service.virtualBytes = *size * kKilobyte;
    service.threads = facts.statusNumber("Threads");
    service.descriptors = facts.descriptorCount();
    service.descriptorLimit = facts.descriptorLimit();
}

}  // namespace

ExportSampler::ExportSampler(Interruption& interruption, ExportFeed& feed, PageRoutes* page)
    : m_source(interruption, kMaxEvents), m_feed(feed), m_page(page) {
    m_thread = std::thread([this] { routine(); });
}

ExportSampler::~ExportSampler() {
    m_stop.stop();
    m_thread.join();
}

// From one date to the next; dates that a slow look has passed are left out.
void ExportSampler::routine() {
    ThreadUtils::setName("ExportSampler");
    auto next = Clock::now();
    do {
        auto snapshot = std::make_shared<const ExportSnapshot>(look());
        if (m_page != nullptr) m_page->remember(*snapshot);
        m_feed.publish(std::move(snapshot));
        next = std::max(next + std::chrono::seconds(1), Clock::now());
    } while (m_stop.waitUntil(next));
}

ExportSnapshot ExportSampler::look() {
    const auto found = m_source.look(kDeadline);
    ExportSnapshot snapshot = found ? m_collector.addLook(found.value(), Clock::now())
                                    : m_collector.addFailure(escapeControls(found.error().text()));
    addFacts(snapshot.service);
    snapshot.time = std::chrono::system_clock::now();
    return snapshot;
}

}  // namespace kelm::ctl
