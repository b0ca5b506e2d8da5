#include "tools/kelmctl/TopMoves.h"

#include "tools/kelmctl/EventHistory.h"
#include "utils/TimeHelper.h"

namespace kelm::ctl {

namespace {

bool isMove(const EventRow& event) {
    return event.action == "loaded" || event.action == "unloaded" || event.action == "moved";
}

TopMoves::Row toRow(const EventRow& event) {
    TopMoves::Row row;
    row.sequence = event.sequence;
    row.what = putTime(event.time, "%T") + " " + event.action + " " + event.graph;
    if (!event.from.empty()) row.where = event.from + " -> ";
    row.where += event.device + (event.device.empty() ? "" : ", ") + event.reason;
    if (!event.lacks.empty()) row.where += ", lacks " + event.lacks;
    return row;
}

}  // namespace

// The counts of the greeting have the events before it; an event that came between the two is both
// among the rows and, once, in the total.
void TopMoves::begin(const EventHistory& history) {
    *this = {};
    for (const auto& [reason, number] : history.moves) total += number;
    for (const EventRow& event : history.events) {
        const bool isNew = event.sequence >= history.next;
        const uint64_t before = total;
        add(event);
        if (!isNew) total = before;
    }
}

void TopMoves::add(const EventRow& event) {
    if (event.kind != "placement") return;
    if (isMove(event)) ++total;
    if (rows.size() >= kMostRows) rows.pop_front();
    rows.push_back(toRow(event));
}

}  // namespace kelm::ctl
