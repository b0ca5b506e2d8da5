#include "tools/kelmctl/export/Metrics.h"

#include <fmt/format.h>

#include <utility>

#include "client/Client.h"
#include "tools/metrics/MetricWriter.h"

namespace kelm::ctl {

namespace {

using Input = MetricsInput;
using Writer = MetricWriter;

template <class Number>
void addTo(std::optional<Number>& sum, const std::optional<Number>& more) {
    if (more) sum = sum.value_or(Number{}) + *more;
}

std::string seriesOf(const std::string& name, bool isListed) {
    return isListed ? labelText(name) : "(others)";
}

double toDouble(uint64_t count) { return static_cast<double>(count); }

// A sample of a member of the service's; nothing while it is down.
template <auto member>
void writeService(Writer& to, const Input& from) {
    if (from.snapshot.isUp) to.add("", std::optional(from.snapshot.service.*member));
}

template <auto member>
void writeKnown(Writer& to, const Input& from) {
    to.add("", from.snapshot.service.*member);
}

template <auto member>
void writeDevices(Writer& to, const Input& from) {
    for (const ExportedDevice& device : from.snapshot.devices) {
        if (device.isPresent) {
            to.add(label("device", labelText(device.name)), std::optional(device.*member));
        }
    }
}

template <auto member>
void writeKnownOfDevices(Writer& to, const Input& from) {
    for (const ExportedDevice& device : from.snapshot.devices) {
        to.add(label("device", labelText(device.name)), device.*member);
    }
}

template <auto member>
void writeGraphs(Writer& to, const Input& from) {
    for (const auto& [name, graph] : from.graphs) to.add(label("graph", name), graph.*member);
}

template <auto member>
void writeTotals(Writer& to, const Input& from) {
    for (const auto& [name, totals] : from.totals) {
        to.add(label("graph", name), toDouble(totals.*member));
    }
}

template <auto member>
void writeClients(Writer& to, const Input& from) {
    for (const auto& [name, client] : from.clients) to.add(label("client", name), client.*member);
}

template <auto member>
void writeProbes(Writer& to, const Input& from) {
    for (const ProbeResults& probe : from.probes) {
        to.add(label("graph", labelText(probe.graph)), static_cast<double>(probe.*member));
    }
}

void writeBuildInfo(Writer& to, const Input&) {
    const client::Version version = client::version();
    to.add(fmt::format("{{protocol=\"{}.{}\",version=\"{}\"}}", version.protocolMajor,
                       version.protocolMinor, version.library),
           1.0);
}

void writeResident(Writer& to, const Input& from) {
    for (const ExportedDevice& device : from.snapshot.devices) {
        if (!device.isPresent) continue;
        to.add(label("device", labelText(device.name)), toDouble(device.graphs.size()));
    }
}

void writeLatencies(Writer& to, const Input& from) {
    for (const ProbeResults& probe : from.probes) {
        to.addHistogram(label("graph", labelText(probe.graph)), probe.latencies);
    }
}

void writeScrapes(Writer& to, const Input& from) {
    to.addPart("_sum", "", from.exporter.scrapeSeconds);
    to.addPart("_count", "", toDouble(from.exporter.scrapes));
}

using Service = ExportedService;
using Device = ExportedDevice;
using Graph = ExportedGraph;

constexpr Metric kMetrics[] = {
    {"kelm_up", "gauge", "Whether the service answered when it was last asked, 1 or 0.",
     [](Writer& to, const Input& from) { to.add("", from.snapshot.isUp ? 1.0 : 0.0); }},
    {"kelm_devices", "gauge", "Devices that the service has.", writeService<&Service::deviceCount>},
    {"kelm_graphs", "gauge", "Graphs that the service knows, on devices or not.",
     writeService<&Service::graphCount>},
    {"kelm_clients", "gauge", "Clients that are registered, the exporter among them.",
     writeService<&Service::clientCount>},
    {"kelm_inferences_per_second", "gauge", "Inferences of all devices.",
     writeService<&Service::fps>},
    {"kelm_service_resident_memory_bytes", "gauge", "Resident memory of the service.",
     writeKnown<&Service::residentBytes>},
    {"kelm_service_virtual_memory_bytes", "gauge", "Virtual memory of the service.",
     writeKnown<&Service::virtualBytes>},
    {"kelm_service_threads", "gauge", "Threads of the service.", writeKnown<&Service::threads>},
    {"kelm_service_open_fds", "gauge", "Descriptors that the service has open.",
     writeKnown<&Service::descriptors>},
    {"kelm_service_max_fds", "gauge", "Descriptors that the service may have open.",
     writeKnown<&Service::descriptorLimit>},
    {"kelm_device_up", "gauge",
     "Whether the service has the device, 1, or has lost it within the last day, 0.",
     writeKnownOfDevices<&Device::isPresent>},
    {"kelm_device_replugs_total", "counter",
     "Times that the device left and came back while the service ran, by a reset too.",
     writeKnownOfDevices<&Device::replugs>},
    {"kelm_device_inferences_per_second", "gauge", "Inferences of the device.",
     writeDevices<&Device::fps>},
    {"kelm_device_temperature_celsius", "gauge", "Temperature of the device.",
     writeKnownOfDevices<&Device::temperature>},
    {"kelm_device_throttling_level", "gauge",
     "How far the device has slowed down because of its temperature; 0 is not at all.",
     writeKnownOfDevices<&Device::throttling>},
    {"kelm_device_graphs", "gauge", "Graphs that are resident on the device.", writeResident},
    {"kelm_graph_submissions_per_second", "gauge", "Tasks that clients submit for the graph.",
     writeGraphs<&Graph::fpsIn>},
    {"kelm_graph_inferences_per_second", "gauge", "Inferences of the graph that are done.",
     writeGraphs<&Graph::fpsOut>},
    {"kelm_graph_waiting_tasks", "gauge", "Tasks of the graph that wait for a device.",
     writeGraphs<&Graph::waiting>},
    {"kelm_graph_devices", "gauge", "Devices that run the graph.", writeGraphs<&Graph::devices>},
    {"kelm_graph_clients", "gauge", "Clients that use the graph.", writeGraphs<&Graph::clients>},
    {"kelm_graph_inferences_total", "counter", "Inferences of the graph.",
     writeTotals<&ExportedTotals::inferences>},
    {"kelm_graph_moves_in_total", "counter", "Loads of the graph onto devices that were seen.",
     writeTotals<&ExportedTotals::movesIn>},
    {"kelm_graph_moves_out_total", "counter",
     "Times that the graph was seen to leave a device, or a device that held it to leave.",
     writeTotals<&ExportedTotals::movesOut>},
    {"kelm_client_connections", "gauge", "Clients that are registered under the name.",
     [](Writer& to, const Input& from) {
         for (const auto& [name, client] : from.clients) {
             to.add(label("client", name), toDouble(client.connections));
         }
     }},
    {"kelm_client_inferences_per_second", "gauge", "Inferences of the client.",
     writeClients<&ClientSeries::fps>},
    {"kelm_client_waiting_tasks", "gauge", "Tasks of the client that wait for a device.",
     writeClients<&ClientSeries::waiting>},
    {"kelm_probe_success", "gauge", "Whether the last probe came through in time, 1 or 0.",
     writeProbes<&ProbeResults::isLastGood>},
    {"kelm_probe_successes_total", "counter", "Probes that came through in time.",
     writeProbes<&ProbeResults::successes>},
    {"kelm_probe_failures_total", "counter", "Probes that failed or were late.",
     writeProbes<&ProbeResults::failures>},
    {"kelm_probe_duration_seconds", "histogram",
     "Time from the submission of a probe to its result, where it came through.", writeLatencies},
    {"kelm_exporter_build_info", "gauge",
     "Always 1; the version of the exporter and of the protocol that it speaks.", writeBuildInfo},
    {"kelm_exporter_sampling_errors_total", "counter",
     "Times that the exporter asked the service in vain.",
     [](Writer& to, const Input& from) { to.add("", toDouble(from.snapshot.samplingErrors)); }},
    {"kelm_exporter_scrape_duration_seconds", "summary",
     "Time that earlier scrapes took the exporter.", writeScrapes},
    {"process_cpu_seconds_total", "counter", "CPU time of the exporter.",
     [](Writer& to, const Input& from) { to.add("", from.exporter.cpuSeconds); }},
};

}  // namespace

MetricsInput::MetricsInput(const ExportSnapshot& shot, std::vector<ProbeResults> results,
                           const ExporterFacts& facts)
    : snapshot(shot), probes(std::move(results)), exporter(facts) {
    for (const ExportedGraph& graph : shot.graphs) {
        ExportedGraph& series = graphs[seriesOf(graph.name, graph.isListed)];
        series.fpsIn += graph.fpsIn;
        series.fpsOut += graph.fpsOut;
        addTo(series.waiting, graph.waiting);
        addTo(series.devices, graph.devices);
        addTo(series.clients, graph.clients);
    }
    for (const auto& [name, more] : shot.totals) {
        ExportedTotals& series = totals[seriesOf(name, !name.empty())];
        series.movesIn += more.movesIn;
        series.movesOut += more.movesOut;
        series.inferences += more.inferences;
    }
    for (const ExportedClient& client : shot.clients) {
        ClientSeries& series = clients[seriesOf(client.name, client.isListed)];
        ++series.connections;
        addTo(series.fps, client.fps);
        addTo(series.waiting, client.waiting);
    }
}

std::span<const Metric> metrics() { return kMetrics; }

std::string metricsText(const MetricsInput& input) {
    MetricWriter writer;
    for (const Metric& metric : kMetrics) {
        writer.begin(metric.name, metric.type, metric.help);
        metric.write(writer, input);
    }
    return writer.take();
}

}  // namespace kelm::ctl
