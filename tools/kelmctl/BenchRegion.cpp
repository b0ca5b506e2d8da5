#include "tools/kelmctl/BenchRegion.h"

#include <cstring>

#include "utils/StringHelper.h"

namespace kelm::ctl {

// The client's own lane, so nothing else writes here; the parent may read a name only once its
// count is set.
void addError(BenchCell& cell, const char* name) {
    for (size_t i = 0; i < cell.errors.size(); ++i) {
        ErrorCount& error = cell.errors[i];
        const bool last = i + 1 == cell.errors.size();
        if (error.count.load() == 0) {
            const std::string text = last ? "other" : name;
            text.copy(error.name.data(), error.name.size() - 1);  // the rest is zeros
        } else if (!last && std::strcmp(error.name.data(), name) != 0) {
            continue;
        }
        error.count.fetch_add(1);
        return;
    }
}

}  // namespace kelm::ctl
