#include "shell/CommandLineParser.h"

#include <boost/program_options.hpp>
#include <iostream>

namespace kelm {

namespace {

namespace po = boost::program_options;
using Strings = std::vector<std::string>;

// Neither abbreviated nor bundled options: the daemon's child is called with "-d" and "--daemon"
// taken out word by word, and one that came through would start daemons without end.
constexpr int kStyle =
    po::command_line_style::default_style &
    ~(po::command_line_style::allow_guessing | po::command_line_style::allow_sticky);

// Files may be repeated, in one option or several; they are read in the order given.
po::options_description describeOptions() {
    po::options_description options("Options");
    options.add_options()                                                                      //
        ("help,h", "print this help message and exit.")                                        //
        ("daemon,d", "execute this program as daemon.")                                        //
        ("config-file,c", po::value<Strings>()->multitoken(), "specify service config file.")  //
        ("list,l", "list available task scheduler name.")                                      //
        ("boot-config", po::value<Strings>()->multitoken(),
         "specify config files for autoboot process.");
    return options;
}

void listTaskSchedulers() {
    std::cout << "Available Task Scheduler:\n"
              << "  - First come first serve scheduler [name: \"fcfs\"]\n"
              << "  - Task polling scheduler [name: \"polling\"]\n"
              << "  - Balanced scheduler [name: \"balanced\"]\n";
}

}  // namespace

// A mistake ends the program with 0, as help does: main() does not tell the two apart.
bool CommandLineParser::parse(int argc, char** argv) {
    po::variables_map values;
    try {
        po::store(po::parse_command_line(argc, argv, describeOptions(), kStyle), values);
        po::notify(values);
    } catch (const po::error& error) {
        std::cerr << "Invalid commandline, detailed error:\n" << error.what() << "\n";
        usage(argc, argv);
        return false;
    }
    if (values.count("help") != 0) {
        usage(argc, argv);
        return false;
    }
    if (values.count("list") != 0) {
        listTaskSchedulers();
        return false;
    }
    m_isRunAsDaemon = values.count("daemon") != 0;
    if (values.count("config-file") != 0) {
        m_serviceConfigFiles = values["config-file"].as<Strings>();
        for (const std::string& file : m_serviceConfigFiles) {
            std::cout << "## Specified config file: " << file << "\n";
        }
    }
    if (values.count("boot-config") != 0) m_bootConfigFiles = values["boot-config"].as<Strings>();
    return true;
}

std::vector<CommandLineOption> CommandLineParser::listOptions() {
    constexpr auto kLetter = po::command_line_style::allow_dash_for_short;
    const po::options_description all = describeOptions();
    std::vector<CommandLineOption> options;
    for (const auto& option : all.options()) {
        const std::string letter = option->canonical_display_name(kLetter);
        const bool hasLetter = letter != option->long_name();
        options.push_back({option->long_name(), hasLetter ? letter.substr(1) : "",
                           option->semantic()->max_tokens() > 0, option->description()});
    }
    return options;
}

void CommandLineParser::usage(int argc, char** argv) const {
    std::cout << "Usage:\n  " << (argc > 0 ? argv[0] : "") << " [options]\n" << describeOptions();
}

}  // namespace kelm
