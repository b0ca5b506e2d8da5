// What the client manager tells those who look into the running service.
#include "managers/ClientManager.h"
#include "protocol/src/InfoPackage.h"
#include "records/KelmClient.h"
#include "reporting/ReportPart.h"
#include "utils/StringHelper.h"

namespace kelm {

void ClientManager::enqueueQueryClientStatus(const std::shared_ptr<KelmStatus>& status) {
    m_pool.post([this, status] { queryClientStatus(status); });
}

void ClientManager::queryClientStatus(const std::shared_ptr<KelmStatus>& status) {
    reportStatusPart(status, "ClientManager", [this](KelmStatus& record) {
        MutexLock lock(m_mutex);
        for (const auto& [clientId, client] : m_idClientMap) {
            record.clientNames.push_back(client->getName());
            record.clientFps.push_back(client->getFps());
        }
    });
}

void ClientManager::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_pool.postNotice([this, package] { updateInfoPackage(package); });
}

void ClientManager::updateInfoPackage(InfoPackage* package) {
    reportPackagePart("ClientManager", [this, package] {
        MutexLock lock(m_mutex);
        for (const auto& [clientId, client] : m_idClientMap) {
            if (package->clientCount == kPackageClients) break;
            InfoClientRow& row = package->clients[package->clientCount++];
            row.clientId = clientId;
            StringHelper::copyStringSafe(row.clientName, client->getName());
            row.apiMajorVersion = client->getApiMajorVersion();
            row.apiMinorVersion = client->getApiMinorVersion();
            row.inferenceTimes = client->getInferenceTimes();
            row.waitingInferenceNum = client->getWaitingInferenceNum();
        }
    });
}

}  // namespace kelm
