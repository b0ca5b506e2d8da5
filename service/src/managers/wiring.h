#pragma once

namespace kelm {

// Names the listener of every port. First thing in main, before a manager is built; the listeners
// themselves are built when they are first told something.
void connectPorts();

}  // namespace kelm
