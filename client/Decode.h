#pragma once

#include "client/Snapshot.h"
#include "client/Status.h"
#include "protocol/src/InfoPackage.h"
#include "protocol/src/KelmMessage.h"

namespace kelm::client {

// Pure; nothing in a record is believed: counts are held to the rows, texts to their fields, and
// numbers that are none become 0.
ServiceStatus decodeStatus(const KelmMsgRspQueryStatus& answer);
Snapshot decodeSnapshot(const InfoPackage& package);

// A rate or temperature from the wire.
float finiteOrZero(float value);
float rateOrZero(float value);
// How many of `rows` a count from the wire fills.
size_t rowsOf(int32_t count, size_t rows);
uint32_t countOrZero(int32_t count);

}  // namespace kelm::client
