#include "managers/wiring.h"

#include "devices/DeviceManagerCreator.h"
#include "execution/ResultSink.h"
#include "execution/TaskExchange.h"
#include "execution/WorkerFailureListener.h"
#include "managers/ClientManager.h"
#include "managers/EventReporter.h"
#include "managers/GraphManager.h"
#include "managers/InfoPrinter.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "records/ClientDirectory.h"
#include "records/StarvingGraphListener.h"
#include "reporting/EventListener.h"
#include "reporting/InfoCollector.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/Port.h"

namespace kelm {

namespace {

template <class Listener, class Manager>
void connect() {
    Port<Listener>::connect([]() -> Listener& { return Manager::instance(); });
}

}  // namespace

void connectPorts() {
    // Only providers: no manager is built before it is needed, in an order that setupService()
    // sets.
    connect<ClientDirectory, ClientManager>();
    connect<EventListener, EventReporter>();
    connect<InfoCollector, InfoPrinter>();
    connect<TaskExchange, TaskManager>();
    connect<ResultSink, ResultDispatcher>();
    connect<TaskScheduleListener, TaskManager>();
    connect<GraphPlacementListener, GraphManager>();
    connect<WorkerRemovalListener, DeviceManagerCreator>();
    connect<WorkerFailureListener, DeviceManagerCreator>();
    connect<StarvingGraphListener, DeviceManagerCreator>();
}

}  // namespace kelm
