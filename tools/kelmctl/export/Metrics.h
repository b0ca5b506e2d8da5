#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "tools/kelmctl/export/ExportModel.h"
#include "tools/kelmctl/export/GraphProbe.h"

namespace kelm {
class MetricWriter;
}

namespace kelm::ctl {

// Of the exporter itself.
struct ExporterFacts {
    uint64_t scrapes = 0;
    double scrapeSeconds = 0.0;  // of all scrapes
    double cpuSeconds = 0.0;
};

// The clients of one name.
struct ClientSeries {
    uint64_t connections = 0;
    std::optional<double> fps;
    std::optional<uint64_t> waiting;
};

// What the metrics are written from. Things of one name are one series, and those whose names have
// no place are another one together.
struct MetricsInput {
    MetricsInput(const ExportSnapshot& snapshot, std::vector<ProbeResults> probes,
                 const ExporterFacts& exporter);

    const ExportSnapshot& snapshot;  // borrowed
    std::map<std::string, ExportedGraph> graphs;
    std::map<std::string, ExportedTotals> totals;
    std::map<std::string, ClientSeries> clients;
    std::vector<ProbeResults> probes;
    ExporterFacts exporter;
};

struct Metric {
    const char* name;
    const char* type;
    const char* help;
    void (*write)(MetricWriter& to, const MetricsInput& from);
};

// All that are exported; docs/exporting.md has the same table.
std::span<const Metric> metrics();
// In Prometheus' text format.
std::string metricsText(const MetricsInput& input);

}  // namespace kelm::ctl
