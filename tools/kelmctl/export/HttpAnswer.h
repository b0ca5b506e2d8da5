#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kelm::ctl {

// What is sent for a request; the server adds the length, that nothing is to be cached, and that
// the type is not to be guessed.
struct HttpAnswer {
    int status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body = {};
    std::vector<std::pair<std::string, std::string>> headers = {};
};

}  // namespace kelm::ctl
