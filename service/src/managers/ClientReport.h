#pragma once

#include <cstdint>
#include <map>
#include <memory>

namespace kelm {

class KelmClient;
struct InfoPackage;
struct KelmStatus;

using ClientRecords = std::map<uint64_t, std::unique_ptr<KelmClient>>;

// What logs and tools are told of the clients: one line or column or row for each, in the order of
// their ids. The records must stay for the call; no locks are needed but the clients' own.

// Rates in frames per second.
void printClientFps(const ClientRecords& clients);
void printClientSnapshot(const ClientRecords& clients);
void fillClientStatus(const ClientRecords& clients, KelmStatus& status);
// As many as the package has rows for.
void fillClientRows(const ClientRecords& clients, InfoPackage& package);

}  // namespace kelm
