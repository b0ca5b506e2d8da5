#include "tools/kelmctl/BenchRegion.h"

#include <cstring>
#include <string>

namespace kelm::ctl {

// The client's own lane, so nothing else writes here; the parent may read a name only once its
// count is set.
void BenchCell::addError(const char* name) {
    for (size_t i = 0; i < errors.size(); ++i) {
        ErrorCount& error = errors[i];
        const bool last = i + 1 == errors.size();
        if (error.count.load() == 0) {
            const std::string text = last ? "other" : name;
            error.name.fill('\0');
            text.copy(error.name.data(), error.name.size() - 1);
        } else if (!last && std::strcmp(error.name.data(), name) != 0) {
            continue;
        }
        error.count.fetch_add(1);
        return;
    }
}

void BenchCell::clear() {
    accept.clear();
    result.clear();
    for (auto* count : {&requests, &givenUp, &refusals, &late}) *count = 0;
    for (ErrorCount& error : errors) error.count = 0;
}

}  // namespace kelm::ctl
