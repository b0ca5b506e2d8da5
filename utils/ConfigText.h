#pragma once

#include <cstddef>
#include <string>

namespace kelm {

// What a configuration file may be, before it is taken for JSON.
struct ConfigText {
    // Far more than any configuration needs. The JSON reader calls itself for each level, so that a
    // file of nothing but brackets would end the process.
    static constexpr size_t kMaxBytes = 1 << 20;
    static constexpr int kMaxNesting = 64;

    // Without what stands from `//` to the end of each line; what is left keeps its line and
    // column.
    static std::string cutComments(const std::string& commented);
};

}  // namespace kelm
