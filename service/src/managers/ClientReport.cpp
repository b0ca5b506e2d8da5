#include "managers/ClientReport.h"

#include <string>
#include <vector>

#include "protocol/src/InfoPackage.h"
#include "records/KelmClient.h"
#include "reporting/KelmStatus.h"
#include "utils/Log.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/TextTable.h"

namespace kelm {

namespace {

constexpr size_t kClientLabelWidth = 12;
constexpr size_t kClientCellWidth = 17;

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

// One cell a client, in id order.
std::vector<std::string> cells(const ClientRecords& clients, std::string (*format)(KelmClient&)) {
    std::vector<std::string> texts;
    for (const auto& [clientId, client] : clients) texts.push_back(format(*client));
    return texts;
}

}  // namespace

void printClientFps(const ClientRecords& clients) {
    std::string text = "ClientFps(count=" + std::to_string(clients.size()) + "):\n";
    for (const auto& [clientId, client] : clients) {
        text += " [" + escapeControls(client->getName()) +
                "] = " + formatFixed(client->getFps(), 2) + "\n";
    }
    LOG_INFO("%s", text);
}

void printClientSnapshot(const ClientRecords& clients) {
    TextTable table(kClientLabelWidth, kClientCellWidth);
    const size_t columns = clients.size();
    table.rule(columns);
    table.row(kHeadRow.label, cells(clients, kHeadRow.format));
    table.rule(columns);
    for (const ClientRow& row : kClientRows) table.row(row.label, cells(clients, row.format));
    table.rule(columns);
    LOG_INFO("%s", "ClientSnapshot(RegularPrint):\n" + table.text());
}

void fillClientStatus(const ClientRecords& clients, KelmStatus& status) {
    for (const auto& [clientId, client] : clients) {
        status.clientNames.push_back(client->getName());
        status.clientFps.push_back(client->getFps());
    }
}

void fillClientRows(const ClientRecords& clients, InfoPackage& package) {
    for (const auto& [clientId, client] : clients) {
        if (package.clientCount == kPackageClients) break;  // the rest has no row
        InfoClientRow& row = package.clients[package.clientCount++];
        row.clientId = clientId;
        StringHelper::copyStringSafe(row.clientName, client->getName());
        row.apiMajorVersion = client->getApiMajorVersion();
        row.apiMinorVersion = client->getApiMinorVersion();
        row.inferenceTimes = client->getInferenceTimes();
        row.waitingInferenceNum = client->getWaitingInferenceNum();
    }
}

}  // namespace kelm
