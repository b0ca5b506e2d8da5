#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "execution/TevoLibrary.h"
#include "utils/Mutex.h"

struct qxDeviceHandle_t {};
struct qxGraphHandle_t {
    unsigned int queued = 0;  // inferences asked for and not yet used up
};
struct qxFifoHandle_t {
    using Element = std::pair<std::string, unsigned long>;
    std::deque<Element> elements;
    qxGraphHandle_t* graph = nullptr;  // of the queue for results
    qxFifoHandle_t* source = nullptr;
};

namespace kelm {

// An accelerator library while it lives. It notes its calls, does what its script says, and copies
// inputs to outputs as inferences are asked for. Calls may come from any thread.
class ScriptedTevo {
 public:
    ScriptedTevo() {
        current() = this;
        TevoLibrary::install(&m_functions);
    }
    ~ScriptedTevo() {
        TevoLibrary::install(nullptr);
        current() = nullptr;
    }
    ScriptedTevo(const ScriptedTevo&) = delete;
    ScriptedTevo& operator=(const ScriptedTevo&) = delete;

    // A call's name is that of the function, followed by the option where it has one.
    // After `skip` further calls of the name one fails so.
    void fail(const std::string& name, int status, int skip = 0) {
        MutexLock lock(m_mutex);
        m_failures[{name, m_counts[name] + skip + 1}] = status;
    }
    // The same, but what the call is for happens: a read takes its result out.
    void failBehind(const std::string& name, int status, int skip = 0) {
        fail(name, status, skip);
        MutexLock lock(m_mutex);
        m_behind.insert({name, m_counts[name] + skip + 1});
    }
    void failAll(const std::string& name, int status) {
        MutexLock lock(m_mutex);
        m_standing[name] = status;
    }
    void block(const std::string& name) {
        MutexLock lock(m_mutex);
        m_blocked.insert(name);
    }
    void release(const std::string& name) {
        MutexLock lock(m_mutex);
        m_blocked.erase(name);
        m_released.notifyAll();
    }
    int count(const std::string& name) {
        MutexLock lock(m_mutex);
        return m_counts[name];
    }
    // The names of the calls since the last question, in order.
    std::vector<std::string> takeCalls() {
        MutexLock lock(m_mutex);
        return std::exchange(m_calls, {});
    }
    // Handles that were made and not given back.
    int live() const { return m_live; }
    // The most that was ever in the two queues of a graph. A real library would stand still beyond
    // the capacity, and in a read of what is not there.
    size_t deepest() const { return m_deepest; }
    int emptyReads() const { return m_emptyReads; }

    // What is answered. Set before the calls.
    uint32_t memorySize = 512u << 20;
    uint32_t memoryUsed = 0;
    uint32_t graphMemory = 8u << 20;  // taken by each graph
    int inputCount = 1;
    int outputCount = 1;
    uint32_t totalSize = 4;
    unsigned int descriptorLength = sizeof(qxTensorDescriptor_t);
    std::vector<float> times{1.0f, 2.0f, 4.5f};
    unsigned int lie = 0;  // added to each length that is told
    float temperature = 50.0f;
    int throttling = 1;
    unsigned int fifoCapacity = 0;     // as asked for
    std::vector<std::string> options;  // of the platform

 private:
    static ScriptedTevo*& current() {
        static ScriptedTevo* obj = nullptr;
        return obj;
    }

    int enter(std::string name, int option = 0) REQUIRES(m_mutex) {
        if (option != 0) name += "(" + std::to_string(option) + ")";
        m_calls.push_back(name);
        const int number = ++m_counts[name];
        while (m_blocked.contains(name)) m_released.wait(m_mutex);
        const auto failure = m_failures.find({name, number});
        if (failure != m_failures.end()) return failure->second;
        const auto standing = m_standing.find(name);
        return standing != m_standing.end() ? standing->second : 0;
    }
    // The body of a function: notes the call, and does `act` unless it fails.
    template <class Act>
    static int call(const char* name, int option, Act act) {
        ScriptedTevo& tevo = *current();
        MutexLock lock(tevo.m_mutex);
        const int status = tevo.enter(name, option);
        if (status == 0 || tevo.m_behind.contains({name, tevo.m_counts[name]})) act(tevo);
        return status;
    }
    void give(void* data, unsigned int* length, const void* value, size_t size) const {
        std::memcpy(data, value, std::min<size_t>(*length, size));
        *length = static_cast<unsigned int>(size) + lie;
    }
    template <class Handle>
    static int make(const char* name, Handle** handle) {
        return call(name, 0, [&](ScriptedTevo& tevo) {
            *handle = new Handle;
            tevo.m_live += 1;
        });
    }
    template <class Handle>
    static int destroy(const char* name, Handle** handle) {
        ScriptedTevo& tevo = *current();
        MutexLock lock(tevo.m_mutex);
        const int status = tevo.enter(name);
        delete std::exchange(*handle, nullptr);
        tevo.m_live -= 1;
        return status;
    }
    void giveOption(int option, void* data, unsigned int* length) const {
        const qxTensorDescriptor_t descriptor = {1, 2, 3, 4, totalSize, {}};
        const auto timesSize = static_cast<uint32_t>(times.size() * sizeof(float));
        const std::string debug(*length, 'd');
        std::vector<float> stats(kThermalStatsSize / sizeof(float), temperature);
        const std::map<int, std::pair<const void*, size_t>> values = {
            {QX_RO_DEVICE_MEMORY_SIZE, {&memorySize, 4}},
            {QX_RO_DEVICE_CURRENT_MEMORY_USED, {&memoryUsed, 4}},
            {QX_RO_DEVICE_THERMAL_STATS, {stats.data(), kThermalStatsSize}},
            {QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL, {&throttling, 4}},
            {QX_RO_GRAPH_INPUT_COUNT, {&inputCount, 4}},
            {QX_RO_GRAPH_OUTPUT_COUNT, {&outputCount, 4}},
            {QX_RO_GRAPH_INPUT_TENSOR_DESCRIPTORS, {&descriptor, sizeof(descriptor)}},
            {QX_RO_GRAPH_OUTPUT_TENSOR_DESCRIPTORS, {&descriptor, sizeof(descriptor)}},
            {QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE, {&timesSize, 4}},
            {QX_RO_GRAPH_TIME_TAKEN, {times.data(), timesSize}},
            {QX_RO_GRAPH_DEBUG_INFO, {debug.data(), debug.size()}},
            {QX_RO_FIFO_TENSOR_DESCRIPTOR, {&descriptor, sizeof(descriptor)}}};
        give(data, length, values.at(option).first, values.at(option).second);
    }
    void addInput(qxFifoHandle_t* fifo, const std::string& content, unsigned long value) {
        fifo->elements.emplace_back(content, value);
        m_deepest = std::max(m_deepest.load(), fifo->elements.size());
    }
    // Takes a result out; what is not there cannot be taken.
    qxFifoHandle_t::Element takeResult(qxFifoHandle_t* fifo) {
        qxFifoHandle_t::Element element{"none", 0};
        const bool isThere =
            fifo->graph != nullptr && fifo->graph->queued > 0 && !fifo->source->elements.empty();
        if (!isThere) {
            ++m_emptyReads;
            return element;
        }
        --fifo->graph->queued;
        element = fifo->source->elements.front();
        fifo->source->elements.pop_front();
        return element;
    }

    Mutex m_mutex;
    CondVar m_released;
    std::vector<std::string> m_calls GUARDED_BY(m_mutex);
    std::map<std::string, int> m_counts GUARDED_BY(m_mutex);
    std::map<std::pair<std::string, int>, int> m_failures GUARDED_BY(m_mutex);
    std::set<std::pair<std::string, int>> m_behind GUARDED_BY(m_mutex);
    std::map<std::string, int> m_standing GUARDED_BY(m_mutex);
    std::set<std::string> m_blocked GUARDED_BY(m_mutex);
    std::atomic<int> m_live{0};        // atomic: changed by whichever thread makes a handle
    std::atomic<size_t> m_deepest{0};  // atomics: read by the test while calls come
    std::atomic<int> m_emptyReads{0};

    const TevoFunctions m_functions = {
        .qxGlobalSetOption =
            [](int option, const void* data, unsigned int) {
                return call("qxGlobalSetOption", 0, [&](ScriptedTevo& tevo) {
                    tevo.options.push_back(std::to_string(option) + "=" +
                                           std::to_string(*static_cast<const int*>(data)));
                });
            },
        .qxPlatformInit = [](int) { return call("qxPlatformInit", 0, [](ScriptedTevo&) {}); },
        .qxDeviceResetAll = [] { return call("qxDeviceResetAll", 0, [](ScriptedTevo&) {}); },
        .qxDeviceOpenBooted = [](qxDeviceHandle_t** handle,
                                 const char*) { return make("qxDeviceOpenBooted", handle); },
        .qxDeviceGetId =
            [](qxDeviceHandle_t*, unsigned int* id) {
                return call("qxDeviceGetId", 0, [&](ScriptedTevo&) { *id = 4711; });
            },
        .qxDeviceGetOption =
            [](qxDeviceHandle_t*, int option, void* data, unsigned int* length) {
                return call("qxDeviceGetOption", option,
                            [&](ScriptedTevo& tevo) { tevo.giveOption(option, data, length); });
            },
        .qxDeviceClose =
            [](qxDeviceHandle_t*) { return call("qxDeviceClose", 0, [](ScriptedTevo&) {}); },
        .qxDeviceDestroy =
            [](qxDeviceHandle_t** handle) { return destroy("qxDeviceDestroy", handle); },
        .qxDeviceHWReset =
            [](qxDeviceHandle_t*) { return call("qxDeviceHWReset", 0, [](ScriptedTevo&) {}); },
        .qxGraphCreate = [](const char*,
                            qxGraphHandle_t** graph) { return make("qxGraphCreate", graph); },
        .qxGraphSetOption =
            [](qxGraphHandle_t*, int option, const void*, unsigned int) {
                return call("qxGraphSetOption", option, [](ScriptedTevo&) {});
            },
        .qxGraphGetOption =
            [](qxGraphHandle_t*, int option, void* data, unsigned int* length) {
                return call("qxGraphGetOption", option,
                            [&](ScriptedTevo& tevo) { tevo.giveOption(option, data, length); });
            },
        .qxGraphAllocate =
            [](qxDeviceHandle_t*, qxGraphHandle_t*, const void*, unsigned int) {
                return call("qxGraphAllocate", 0,
                            [](ScriptedTevo& tevo) { tevo.memoryUsed += tevo.graphMemory; });
            },
        .qxGraphGetInfoSize =
            [](const void*, unsigned int, int type, void* result, unsigned int*) {
                return call("qxGraphGetInfoSize", 0,
                            [&](ScriptedTevo&) { *static_cast<int*>(result) = 1000 + type; });
            },
        .qxGraphQueueInference =
            [](qxGraphHandle_t* graph, qxFifoHandle_t** in, unsigned int, qxFifoHandle_t** out,
               unsigned int) {
                return call("qxGraphQueueInference", 0, [&](ScriptedTevo&) {
                    ++graph->queued;
                    (*out)->graph = graph;
                    (*out)->source = *in;
                });
            },
        .qxGraphDestroy = [](qxGraphHandle_t** graph) { return destroy("qxGraphDestroy", graph); },
        .qxFifoCreate = [](const char* name, int,
                           qxFifoHandle_t** fifo) { return make(name, fifo); },
        .qxFifoAllocate =
            [](qxFifoHandle_t*, qxDeviceHandle_t*, const qxTensorDescriptor_t*,
               unsigned int capacity) {
                return call("qxFifoAllocate", 0,
                            [&](ScriptedTevo& tevo) { tevo.fifoCapacity = capacity; });
            },
        .qxFifoGetOption =
            [](qxFifoHandle_t*, int option, void* data, unsigned int* length) {
                return call("qxFifoGetOption", 0, [&](ScriptedTevo& tevo) {
                    tevo.giveOption(option, data, length);
                    *length = tevo.descriptorLength;
                });
            },
        .qxFifoWriteElem =
            [](qxFifoHandle_t* fifo, const void* data, unsigned int* length, unsigned long value) {
                return call("qxFifoWriteElem", 0, [&](ScriptedTevo& tevo) {
                    tevo.addInput(fifo, std::string(static_cast<const char*>(data), *length),
                                  value);
                });
            },
        .qxFifoWriteIonElem =
            [](qxFifoHandle_t* fifo, int fd, unsigned int* length, unsigned long value) {
                return call("qxFifoWriteIonElem", 0, [&](ScriptedTevo& tevo) {
                    std::string content(*length, '?');
                    if (::pread(fd, content.data(), *length, 0) < 0) content = "unreadable";
                    tevo.addInput(fifo, content, value);
                });
            },
        .qxFifoReadElem =
            [](qxFifoHandle_t* fifo, void* data, unsigned int* length, unsigned long* value) {
                return call("qxFifoReadElem", 0, [&](ScriptedTevo& tevo) {
                    const qxFifoHandle_t::Element result = tevo.takeResult(fifo);
                    *value = result.second;
                    tevo.give(data, length, result.first.data(), result.first.size());
                });
            },
        .qxFifoReadIonElem =
            [](qxFifoHandle_t* fifo, int fd, unsigned int* length, unsigned long* value) {
                return call("qxFifoReadIonElem", 0, [&](ScriptedTevo& tevo) {
                    const qxFifoHandle_t::Element result = tevo.takeResult(fifo);
                    *value = result.second;
                    *length = static_cast<unsigned int>(result.first.size());
                    if (::pwrite(fd, result.first.data(), *length, 0) < 0) *length = 0;
                });
            },
        .qxFifoDestroy = [](qxFifoHandle_t** fifo) { return destroy("qxFifoDestroy", fifo); },
    };
};

}  // namespace kelm
