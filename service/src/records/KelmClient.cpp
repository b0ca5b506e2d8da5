#include "records/KelmClient.h"

#include <utility>

#include "config/ServiceConfigParser.h"
#include "records/ClientConnection.h"

namespace kelm {

namespace {

// 0, the default, and below: no limit.
uint32_t configuredMaxTaskNumber() {
    const int limit = ServiceConfigParser::instance().getClientMaxTaskNumber();
    return limit > 0 ? static_cast<uint32_t>(limit) : UINT32_MAX;
}

}  // namespace

KelmClient::KelmClient(uint64_t id, std::string name, std::shared_ptr<ClientConnection> connection,
                       uint16_t apiMajorVersion, uint16_t apiMinorVersion)
    : m_id(id),
      m_name(std::make_shared<const std::string>(std::move(name))),
      m_connection(std::move(connection)),
      m_apiMajorVersion(apiMajorVersion),
      m_apiMinorVersion(apiMinorVersion),
      m_fpsCounter("Client", *m_name, "Fps"),
      m_maxTaskNumber(configuredMaxTaskNumber()) {
    m_fpsCounter.m_bufferTimeMs = ServiceConfigParser::instance().getFpsBufferTimeLength();
}

// Closes the connection unless another client record shares it. Here, since the header only
// declares the connection's class.
KelmClient::~KelmClient() = default;

int KelmClient::getSocket() const { return m_connection ? m_connection->getSocket() : -1; }

// Each task that ends counts for the rate, also one that failed or was canceled.
void KelmClient::decreaseTaskCount() {
    m_taskCount.fetch_sub(1);
    m_fpsCounter.update();
}

}  // namespace kelm
