#pragma once

#include "tools/kelmctl/export/ExportModel.h"

namespace kelm::ctl {

class HtmlWriter;
class PageHistory;

// The sections that have a row for each device, graph and client. On a narrow screen a row becomes
// a card, whose lines repeat the labels of the columns; roles keep it a row for screen readers.

// Devices by graphs: what is resident where, and how each device does.
void writeDevices(HtmlWriter& html, const ExportSnapshot& snapshot, const PageHistory& history);
void writeGraphs(HtmlWriter& html, const ExportSnapshot& snapshot);
void writeClients(HtmlWriter& html, const ExportSnapshot& snapshot);

}  // namespace kelm::ctl
