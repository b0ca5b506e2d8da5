// What the client manager prints at intervals, and tells those who ask.
#include "managers/ClientManager.h"
#include "protocol/src/InfoPackage.h"
#include "records/KelmClient.h"
#include "reporting/ReportPart.h"
#include "utils/Log.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/TextTable.h"

namespace kelm {

namespace {

constexpr size_t kLabelWidth = 12;
constexpr size_t kCellWidth = 17;

std::string formatClientId(KelmClient& client) { return std::to_string(client.getId()); }
std::string formatClientName(KelmClient& client) { return client.getName(); }
std::string formatClientFps(KelmClient& client) { return formatFixed(client.getFps(), 2); }
std::string formatInferenceTimes(KelmClient& client) {
    return std::to_string(client.getInferenceTimes());
}
std::string formatWaitingInferenceNum(KelmClient& client) {
    return std::to_string(client.getWaitingInferenceNum());
}

struct ClientRow {
    const char* label;
    std::string (*format)(KelmClient&);
};
constexpr ClientRow kHeadRow = {"clientId", &formatClientId};
constexpr ClientRow kClientRows[] = {
    {"clientName", &formatClientName},
    {"clientFps", &formatClientFps},
    {"inferTimes", &formatInferenceTimes},
    {"waitNum", &formatWaitingInferenceNum},
};

}  // namespace

void ClientManager::onPrintInfo() {
    MutexLock lock(m_mutex);
    if (m_printClientFps) printClientFps();
    if (m_snapshot) snapshot("RegularPrint");
}

void ClientManager::printClientFps() {
    std::string text = "ClientFps(count=" + std::to_string(m_idClientMap.size()) + "):\n";
    for (const auto& [clientId, client] : m_idClientMap) {
        text += " [" + escapeControls(client->getName()) +
                "] = " + formatFixed(client->getFps(), 2) + "\n";
    }
    LOG_INFO("%s", text);
}

void ClientManager::snapshot(const char* reason) {
    TextTable table(kLabelWidth, kCellWidth);
    const size_t columns = m_idClientMap.size();
    table.rule(columns);
    table.row(kHeadRow.label, cells(kHeadRow.format));
    table.rule(columns);
    for (const ClientRow& row : kClientRows) table.row(row.label, cells(row.format));
    table.rule(columns);
    LOG_INFO("%s", std::string("ClientSnapshot(") + reason + "):\n" + table.text());
}

std::vector<std::string> ClientManager::cells(std::string (*format)(KelmClient&)) {
    std::vector<std::string> texts;
    for (const auto& [clientId, client] : m_idClientMap) texts.push_back(format(*client));
    return texts;
}

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
