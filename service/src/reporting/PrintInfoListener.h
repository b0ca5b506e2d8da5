#pragma once

namespace kelm {

// Prints something about its owner into the log, once an interval.
class PrintInfoListener {
 public:
    virtual ~PrintInfoListener() = default;
    // On the printer's thread; takes its own locks.
    virtual void onPrintInfo() = 0;
};

}  // namespace kelm
