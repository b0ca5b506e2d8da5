#include "managers/EventReporter.h"

#include <chrono>

#include "config/ServiceConfigParser.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/RunPaths.h"

namespace kelm {

namespace {

constexpr std::chrono::milliseconds kServerEndTime{1000};

}  // namespace

EventReporter::EventReporter()
    : m_journal(ServiceConfigParser::instance().isPlacementLogEnabled()) {}

EventReporter::~EventReporter() { Port<EventListener>::disconnect(); }

void EventReporter::setupListenThread() {
    m_server =
        std::make_unique<EventServer>(RunPaths::eventsSocket(), m_journal, EventServer::Limits{});
}

void EventReporter::start() {
    if (m_server) m_server->start();
}

bool EventReporter::stop() {
    if (!m_server || m_server->stop(kServerEndTime)) return true;
    LOG_ERROR("Error: the event server does not end, go on without it");
    return false;
}

}  // namespace kelm
