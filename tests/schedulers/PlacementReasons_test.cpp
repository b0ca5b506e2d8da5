#include "reporting/EventListener.h"
#include "reporting/ServiceEvent.h"
#include "schedulers/SchedulerRig.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/devices/DeviceSchedulerStream.h"
#include "scheduling/devices/DeviceSchedulerTag.h"

namespace kelm {
namespace {

struct FakeEventListener final : EventListener {
    void record(const ServiceEvent& event) override {
        if (kindOf(event.action) != EventKind::Placement) return;
        std::string words = event.lack != PlacementLack::Nothing ? "lacks" : "";
        if (!event.device.view().empty()) words += event.device.view();
        if (!event.from.view().empty()) words += "<" + std::string(event.from.view());
        told += std::to_string(event.graphId) + " " + nameOf(event.action) + " " + words + " " +
                nameOf(event.reason) + "; ";
    }
    std::string told;
};

struct ReasonRow {
    const char* rule;
    const char* script;
    const char* told;
};

template <class Scheduler>
void playAll(std::initializer_list<ReasonRow> rows,
             const std::function<void(SchedulerRig<Scheduler>&)>& prepare) {
    for (const ReasonRow& row : rows) {
        SCOPED_TRACE(row.rule);
        FakeEventListener listener;
        const ScopedPort<EventListener> port(listener);
        SchedulerRig<Scheduler> rig;
        prepare(rig);
        (void)rig.play(row.script);
        EXPECT_EQ(listener.told, row.told);
    }
}

TEST(PlacementReasons, SqueezeTellsWhatItsCommitsHaveDone) {
    playAll<DeviceSchedulerSqueeze2>(
        {{"a plan that is dropped is not told", "+a L1 / |", "1 loaded a starving; "},
         {"nothing changes", "+a L1 | | |", "1 loaded a starving; "},
         {"a reset ends its device, another one comes in the same pass", "+a L1 | +b *a |",
          "1 loaded a starving; 1 moved b<a reset; "},
         {"or in a later one", "+a L1 | *a | | +b",
          "1 loaded a starving; 1 unloaded a reset; 1 moved b<a reset; "},
         {"its device leaves the bus", "+a L1 | +b -a",
          "1 loaded a starving; 1 moved b<a lost_device; "},
         {"a graph is switched out, once, and its client goes", "+a L1 | L2 | U1",
          "1 loaded a starving; 2 loaded a starving; 1 unloaded a demand; 1 refused lacks demand; "
          "1 unloaded a client_gone; "},
         {"a load that a device refuses", "+a !a L1 | |",
          "1 refused a starving; 1 refused a starving; "}},
        [](auto& rig) { rig.scheduler.setMaxGraphNumPerDevice(1); });
}

TEST(PlacementReasons, ReservedDevicesGoByTagAndStream) {
    playAll<DeviceSchedulerStream>(
        {{"one device for two", "+a L1 | L2 | U1 |",
          "1 loaded a stream; 2 refused lacks starving; 1 unloaded a client_gone; "},
         {"its device leaves the bus", "+a L1 | -a | +b",
          "1 loaded a stream; 1 unloaded a lost_device; 1 moved b<a lost_device; "}},
        [](auto&) {});
    playAll<DeviceSchedulerTag>({{"a device by quota, none for a tag without", "+a L1 | L2 |",
                                  "1 loaded a tag; 2 refused lacks starving; "}},
                                [](auto& rig) {
                                    std::map<std::string, unsigned long> tags{{"1", 1}};
                                    rig.scheduler.setTagMap(tags);
                                    rig.dress = [](KelmGraph& graph, char number) {
                                        graph.setTag(std::string(1, number).c_str());
                                    };
                                });
}

}  // namespace
}  // namespace kelm
