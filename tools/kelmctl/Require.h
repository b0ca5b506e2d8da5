#pragma once

#include <stdexcept>
#include <utility>

#include "client/Error.h"

namespace kelm::ctl {

// An error of the client library ends a command with its text.
inline void require(const client::Error& error) {
    if (error) throw std::runtime_error(error.text());
}

template <class T>
T take(client::Result<T> result) {
    if (!result) throw std::runtime_error(result.error().text());
    return std::move(result.value());
}

}  // namespace kelm::ctl
