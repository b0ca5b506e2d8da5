#pragma once

#include <exception>
#include <memory>
#include <string>

#include "reporting/InfoCollector.h"
#include "reporting/KelmStatus.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

// A part of a shared record is reported when it is filled, also when filling it has thrown: the
// printer that gathers the record waits for every part. Called without locks.

// `fill` writes the part of `source` into the record.
template <class Fill>
void reportStatusPart(const std::shared_ptr<KelmStatus>& status, const std::string& source,
                      Fill fill) {
    try {
        fill(*status);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: %s cannot tell its status: %s", source, error.what());
    }
    Port<InfoCollector>::notify<&InfoCollector::enqueueQueryStatusDone>(status, source);
}

// The same for a section of the package, which `fill` knows.
template <class Fill>
void reportPackagePart(const std::string& source, Fill fill) {
    try {
        fill();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: %s cannot fill the info package: %s", source, error.what());
    }
    Port<InfoCollector>::notify<&InfoCollector::enqueueUpdateInfoPackageDone>(source);
}

}  // namespace kelm
