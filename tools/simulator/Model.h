#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kelm::simulator {

constexpr uint32_t kMegabyte = 1 << 20;  // bytes

// What a graph's blob means to a simulated accelerator. Any bytes are a graph; a first line such as
// "KELMSIM input=4096 output=1000 micros=2000" sets the fields by the names given here.
struct Model {
    uint32_t inputSize = 4096;   // input, bytes
    uint32_t outputSize = 1024;  // output, bytes
    uint32_t memoryMb = 1;       // memory; without it the blob's size, rounded up
    uint32_t micros = 1000;      // micros, duration of an inference
    uint32_t times = 4;          // times, floats of the time-taken array
    uint32_t debugSize = 64;     // debug, bytes
    uint32_t inputs = 1;         // inputs, of which only the first is used
    uint32_t outputs = 1;        // outputs, likewise
    uint64_t key = 0;            // FNV-1a of the whole blob

    // Nothing for an empty blob and for a first line that cannot be understood.
    static std::optional<Model> parse(std::span<const uint8_t> blob);

    // The inference: out[i] = in[i % inputSize] ^ byte (i % 8) of the key, lowest first.
    void infer(std::span<const uint8_t> input, std::span<uint8_t> output) const;
    // Milliseconds: a quarter each, but the last, which is `micros` after the one before it.
    void timeTaken(std::span<float> result) const;
    // result[i] = byte (i % 8) of the key + i.
    void debugInfo(std::span<uint8_t> result) const;

 private:
    uint8_t keyByte(size_t index) const { return static_cast<uint8_t>(key >> (index % 8 * 8)); }
};

constexpr size_t kThermalFloats = 25;
// stats[i] = temperature - i / 4
void thermalStats(float temperature, std::span<float, kThermalFloats> result);

}  // namespace kelm::simulator
