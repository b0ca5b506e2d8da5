// What the printer gathers from the managers: the record of a status query, and the package.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/InfoPrinter.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/InfoPackage.h"
#include "records/Request.h"
#include "reporting/KelmStatus.h"
#include "reporting/MemoryInspector.h"
#include "utils/Log.h"

namespace kelm {

namespace {

using StatusPtr = std::shared_ptr<KelmStatus>;

// A status record with the query that it answers.
struct KelmStatusExtend : KelmStatus {
    Request request;
    // Atomic: lowered on the thread of each part. The first one is the query's own, so that quick
    // managers do not send the answer before all parts are asked for.
    std::atomic<uint8_t> pendingParts{1};
};

// Who fills the record, and for which bits of the query's type.
struct StatusPart {
    uint64_t bits;
    void (*post)(const StatusPtr& status);
};
constexpr StatusPart kStatusParts[] = {
    {kQueryAll,
     [](const StatusPtr& status) { ResultDispatcher::instance().enqueueQueryServiceFps(status); }},
    {kQueryAll | kQueryDevices,
     [](const StatusPtr& status) {
         DeviceManagerCreator::instance().enqueueQueryDeviceStatus(status);
     }},
    {kQueryAll | kQueryGraphs,
     [](const StatusPtr& status) { GraphManager::instance().enqueueQueryGraphStatus(status); }},
    {kQueryAll | kQueryClients,
     [](const StatusPtr& status) { ClientManager::instance().enqueueQueryClientStatus(status); }},
    {kQuerySchedulers,
     [](const StatusPtr& status) {
         DeviceManagerCreator::instance().enqueueQueryDeviceScheduler(status);
     }},
    {kQuerySchedulers,
     [](const StatusPtr& status) { TaskManager::instance().enqueueQueryTaskScheduler(status); }},
};
constexpr uint64_t kKnownBits =
    kQueryAll | kQueryDevices | kQueryGraphs | kQueryClients | kQuerySchedulers;

// Who writes a section of the package. Never held up by a full queue, on which the tools' thread
// would wait with the package on its stack.
constexpr void (*kPackageParts[])(InfoPackage* package) = {
    [](InfoPackage* package) { ClientManager::instance().enqueueUpdateInfoPackage(package); },
    [](InfoPackage* package) {
        DeviceManagerCreator::instance().enqueueUpdateInfoPackage(package);
    },
    [](InfoPackage* package) { GraphManager::instance().enqueueUpdateInfoPackage(package); },
};
constexpr int kPackagePartNum = std::size(kPackageParts);

}  // namespace

void InfoPrinter::enqueueQueryStatus(Request request) {
    m_pool.post(
        [this, request = std::move(request)]() mutable { queryStatus(std::move(request)); });
}

void InfoPrinter::queryStatus(Request request) {
    const uint64_t queryType = request.as<KelmMsgReqQueryStatus>().queryType;
    if ((queryType & kKnownBits) == 0 || isStopped()) return;
    const auto status = std::make_shared<KelmStatusExtend>();
    status->request = std::move(request);
    for (const StatusPart& part : kStatusParts) {
        if ((queryType & part.bits) == 0) continue;
        status->pendingParts.fetch_add(1);
        try {
            part.post(status);
        } catch (const std::exception& error) {
            LOG_ERROR("Error: a part of the status is left empty: %s", error.what());
            queryStatusDone(status);
        }
    }
    queryStatusDone(status);
}

void InfoPrinter::enqueueQueryStatusDone(const StatusPtr& status, const std::string& /*source*/) {
    m_pool.postNotice([this, status] { queryStatusDone(status); });
}

void InfoPrinter::queryStatusDone(const StatusPtr& status) {
    const auto query = std::dynamic_pointer_cast<KelmStatusExtend>(status);
    if (!query) {
        LOG_ERROR(
            "Error: std::dynamic_pointer_cast<KelmStatusExtend>(status) failed, errno = %d[%s].",
            errno, std::generic_category().message(errno));
        return;
    }
    if (query->pendingParts.fetch_sub(1) != 1 || isStopped()) return;
    ResultDispatcher::instance().enqueueSendQueryStatusResponse(status, std::move(query->request));
}

void InfoPrinter::collectInfoPackage(InfoPackage* package) {
    m_packageParts.resetValue(1 - kPackagePartNum);
    std::memset(static_cast<void*>(package), 0, sizeof(*package));  // its padding leaves, too
    // First: nothing may throw between the questions and the wait for the answers.
    MemoryInspector::instance().updateInfoPackage(package);
    for (const auto& enqueueUpdate : kPackageParts) {
        try {
            enqueueUpdate(package);
        } catch (const std::exception& error) {
            LOG_ERROR("Error: a part of the info package is left empty: %s", error.what());
            m_packageParts.post();
        }
    }
    // Without limit: a manager may still be writing into the package.
    m_packageParts.wait();
}

void InfoPrinter::enqueueUpdateInfoPackageDone(const std::string& source) {
    LOG_PROC(m_debugProcess, "enqueueUpdateInfoPackageDone: %s", source);
    m_packageParts.post();
}

}  // namespace kelm
