#pragma once

#include <memory>
#include <string>

namespace kelm {

class PrintInfoListener;
struct KelmStatus;

// Port: the printer, which prints at intervals and gathers what the managers report. Any thread.
class InfoCollector {
 public:
    // Null or an entry already present: false.
    virtual bool registerListener(PrintInfoListener* listener) = 0;
    // When it returns, the listener is not being called any more.
    virtual void unregisterListener(PrintInfoListener* listener) = 0;

    // `source` has filled its part. Never blocks.
    virtual void enqueueQueryStatusDone(const std::shared_ptr<KelmStatus>& status,
                                        const std::string& source) = 0;
    // `source` has written its section of the package and does not touch it any more.
    virtual void enqueueUpdateInfoPackageDone(const std::string& source) = 0;

 protected:
    ~InfoCollector() = default;
};

}  // namespace kelm
