#include "tools/kelmctl/StatusSource.h"

#include <utility>

#include "tools/kelmctl/Interruption.h"

namespace kelm::ctl {

namespace {

// Connected anew each time: a stream that stays open brings the next one up to five seconds later.
client::Result<client::Snapshot> readSnapshot(client::Deadline deadline) {
    const auto reader = client::SnapshotReader::connect({}, deadline);
    if (!reader) return reader.error();
    return reader.value()->read(deadline);
}

}  // namespace

client::Result<StatusLook> StatusSource::look(client::Deadline deadline) {
    if (const client::Error error = connect(deadline)) return error;
    auto status = m_service->queryStatus(client::StatusParts::all(), deadline);
    if (!status) {
        drop();
        return status.error();
    }
    StatusLook look;
    look.status = std::move(status.value());
    look.servicePid = m_service->servicePid();
    auto snapshot = readSnapshot(deadline);
    if (snapshot) {
        look.snapshot = std::move(snapshot.value());
    } else {
        look.snapshotWhy = snapshot.error().text();
    }
    look.history = m_events.look(deadline);
    return look;
}

client::Error StatusSource::leave() {
    client::Error error = m_service ? m_service->unregister() : client::Error();
    drop();
    return error;
}

// The next try after a loss tells why there is no service.
client::Error StatusSource::connect(client::Deadline deadline) {
    if (m_service && m_service->isConnected()) return {};
    drop();
    auto connected = client::Client::connect({}, deadline);
    if (!connected) return connected.error();
    m_service = std::move(connected.value());
    m_interruption.setService(m_service);
    client::Error error = m_service->registerClient("kelmctl", deadline);
    if (error) drop();
    return error;
}

void StatusSource::drop() {
    m_interruption.setService(nullptr);
    m_service = nullptr;
    m_events.drop();
}

}  // namespace kelm::ctl
