#include "managers/GraphDump.h"

#include <atomic>
#include <chrono>
#include <climits>

#include "config/ServiceConfigParser.h"
#include "records/KelmGraph.h"
#include "utils/CommonHelper.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"
#include "utils/Utf8.h"

namespace kelm {

namespace {

std::string settleDumpPath() {
    std::string configured = ServiceConfigParser::instance().getGraphDumpPath();
    if (!configured.empty()) {
        if (FileHelper::isDirectory(configured)) return configured;
        LOG_WARN("Warn: Invalid graph dump path: there is no directory '%s'", configured);
    }
    return FileHelper::joinPath(CommonHelper::getKelmInstallDir(), "bin", "dump_graph");
}

// The part of a client's text that may be in a file name: it names no other directory and no hidden
// file.
std::string makeDumpStem(const std::string& graphName, size_t room) {
    std::string stem = FileHelper::getFileNameStem(graphName);
    std::erase(stem, '/');
    stem.erase(0, stem.find_first_not_of('.'));
    return std::string(Utf8::head(stem, room));
}

std::string makeDumpFileName(KelmGraph& graph) {
    static std::atomic<uint64_t> dumpCounter{0};
    constexpr size_t kHashTail = 6;
    const std::string& hash = graph.getHash();
    const std::string ending = "_" + putTime(std::chrono::system_clock::now(), "%Y%m%d_%H%M%S") +
                               "_" + std::to_string(ThreadUtils::getThreadId()) + "_" +
                               std::to_string(dumpCounter.fetch_add(1)) + "_sha256_" +
                               hash.substr(hash.size() < kHashTail ? 0 : hash.size() - kHashTail) +
                               ".graph";
    return makeDumpStem(graph.getName(), NAME_MAX - ending.size()) + ending;
}

}  // namespace

GraphDump::GraphDump()
    : m_enabled(ServiceConfigParser::instance().isDumpGraphEnabled()), m_path(settleDumpPath()) {}

void GraphDump::write(KelmGraph& graph) const {
    if (!m_enabled) return;
    const std::string file = FileHelper::joinPath(m_path, makeDumpFileName(graph));
    if (graph.dumpToFile(file)) {
        LOG_INFO("graph [%s] has been dumped to local file '%s'", escapeControls(graph.getName()),
                 escapeControls(file));
    } else {
        LOG_ERROR("Error: dump graph [%s] to local file '%s' failed",
                  escapeControls(graph.getName()), escapeControls(file));
    }
}

}  // namespace kelm
