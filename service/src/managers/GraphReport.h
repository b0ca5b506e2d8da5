#pragma once

#include <vector>

namespace kelm {

class KelmGraph;
struct InfoPackage;
struct KelmStatus;

// What logs and tools are told of the loaded graphs: one line or column or row for each, in the
// order given. The graphs must stay for the call; no locks are needed but the graphs' own.

// Rates in frames per second.
void printGraphFps(const std::vector<KelmGraph*>& graphs);
void printGraphSnapshot(const std::vector<KelmGraph*>& graphs);
void fillGraphStatus(const std::vector<KelmGraph*>& graphs, KelmStatus& status);
// As many as the package has rows for.
void fillGraphRows(const std::vector<KelmGraph*>& graphs, InfoPackage& package);

}  // namespace kelm
