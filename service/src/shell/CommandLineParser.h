#pragma once

#include <string>
#include <vector>

namespace kelm {

struct CommandLineOption {
    std::string name;
    std::string letter;       // empty: none
    bool takesFiles = false;  // one or more
    std::string text;
};

// What the program's arguments ask for.
//
// Threads: the main thread only.
class CommandLineParser {
 public:
    // True means: run the service. False after --help, --list or a mistake, with the words already
    // written.
    bool parse(int argc, char** argv);

    bool isRunAsDaemon() const { return m_isRunAsDaemon; }
    // Read over the configuration of the install directory and of the user, in this order.
    std::vector<std::string> getServiceConfigFiles() const { return m_serviceConfigFiles; }
    std::vector<std::string> getBootConfigFiles() const { return m_bootConfigFiles; }

    // All options, in the order of the help.
    static std::vector<CommandLineOption> listOptions();
    // Prints how the program is called.
    void usage(int argc, char** argv) const;

 private:
    bool m_isRunAsDaemon = false;
    std::vector<std::string> m_serviceConfigFiles;
    std::vector<std::string> m_bootConfigFiles;
};

}  // namespace kelm
