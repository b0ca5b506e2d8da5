// The client manager's part of the interval print, of the status query and of the info package.
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

using Clients = std::map<uint64_t, std::unique_ptr<KelmClient>>;

// One cell a client, in id order.
std::vector<std::string> cells(const Clients& clients, std::string (*format)(KelmClient&)) {
    std::vector<std::string> texts;
    for (const auto& [clientId, client] : clients) texts.push_back(format(*client));
    return texts;
}

void printClientFps(const Clients& clients) {
    std::string text = "ClientFps(count=" + std::to_string(clients.size()) + "):\n";
    for (const auto& [clientId, client] : clients) {
        text += " [" + escapeControls(client->getName()) +
                "] = " + formatFixed(client->getFps(), 2) + "\n";
    }
    LOG_INFO("%s", text);
}

void printSnapshot(const Clients& clients) {
    TextTable table(kLabelWidth, kCellWidth);
    const size_t columns = clients.size();
    table.rule(columns);
    table.row(kHeadRow.label, cells(clients, kHeadRow.format));
    table.rule(columns);
    for (const ClientRow& row : kClientRows) table.row(row.label, cells(clients, row.format));
    table.rule(columns);
    LOG_INFO("%s", "ClientSnapshot(RegularPrint):\n" + table.text());
}

}  // namespace

void ClientManager::onPrintInfo() {
    MutexLock lock(m_mutex);  // both prints tell of the same clients
    if (m_printClientFps) printClientFps(m_idClientMap);
    if (m_snapshot) printSnapshot(m_idClientMap);
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

// A notice: the collecting thread waits for this part, so a full queue must not delay it.
void ClientManager::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_pool.postNotice([this, package] { updateInfoPackage(package); });
}

void ClientManager::updateInfoPackage(InfoPackage* package) {
    reportPackagePart("ClientManager", [this, package] {
        MutexLock lock(m_mutex);
        for (const auto& [clientId, client] : m_idClientMap) {
            if (package->clientCount == kPackageClients) break;  // the rest has no row
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
