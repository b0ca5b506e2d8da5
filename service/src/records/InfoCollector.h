#pragma once

namespace kelm {

class PrintInfoListener;

// Port: whoever prints periodically. Any thread.
class InfoCollector {
 public:
    // Null or an entry already present: false.
    virtual bool registerListener(PrintInfoListener* listener) = 0;
    virtual void unregisterListener(PrintInfoListener* listener) = 0;

 protected:
    ~InfoCollector() = default;
};

}  // namespace kelm
