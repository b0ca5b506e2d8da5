#pragma once

#include <stdexcept>

namespace kelm::ctl {

// A mistake in the arguments of a command, in the words of the user: exit status 2, all other
// failures are 1. Thrown before the command has done anything.
class UsageError : public std::invalid_argument {
 public:
    using std::invalid_argument::invalid_argument;
};

}  // namespace kelm::ctl
