#include "utils/ConfigText.h"

#include <sstream>

namespace kelm {

// Deliberate: a plain cut that knows nothing of JSON strings, so a value holding `//` loses its
// tail. It keeps the comments of the files simple.
std::string ConfigText::cutComments(const std::string& commented) {
    std::istringstream file(commented);
    std::string text;
    std::string line;
    while (std::getline(file, line)) {
        const size_t comment = line.find("//");
        if (comment != std::string::npos) line.erase(comment);
        text += line + '\n';
    }
    return text;
}

}  // namespace kelm
