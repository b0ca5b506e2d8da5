#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <span>
#include <string>
#include <vector>

#include "tools/kelmctl/CommandTree.h"
#include "tools/kelmctl/NearestName.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/UsageError.h"

namespace {

constexpr int kUsageStatus = 2;

// The parser would take an unknown command for a mistake of the arguments behind it.
void checkCommand(const CLI::App& app, std::span<char*> words) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
        names.push_back(command->get_name());
    }
    if (names.empty()) return;
    const std::string parent = app.get_parent() == nullptr ? "" : app.get_name() + " ";
    if (words.empty()) {
        throw kelm::ctl::UsageError("no command; see kelmctl " + parent + "--help");
    }
    const std::string word = words[0];
    if (word.starts_with('-')) return;
    if (std::count(names.begin(), names.end(), word) == 0) {
        throw kelm::ctl::UsageError("unknown command '" + parent + word + "'; the nearest is '" +
                                    parent + kelm::ctl::findNearest(word, names) +
                                    "', see kelmctl " + parent + "--help");
    }
    checkCommand(*app.get_subcommand(word), words.subspan(1));
}

// The parser's words tell what is wrong, and not what would be right.
std::string helpFor(std::span<const kelm::ctl::Command> commands) {
    const auto parsed = std::ranges::find_if(
        commands, [](const kelm::ctl::Command& command) { return command.app->parsed(); });
    const bool isKnown = parsed != commands.end();
    return "; see kelmctl " + (isKnown ? parsed->app->get_name() + " " : "") + "--help";
}

// One line that a terminal does not obey, whatever names of other clients the text holds.
int fail(std::string text, int status) {
    std::ranges::replace(text, '\n', ' ');
    const bool utf8 = kelm::ctl::useTerminalLocale();
    std::cerr << "kelmctl: " << kelm::ctl::toUtf8(kelm::ctl::safeText(text, utf8)) << "\n";
    return status;
}

}  // namespace

// 2 for a mistake in the arguments, 1 for everything else that a command throws; one line tells
// either.
int main(int argc, char** argv) {
    CLI::App app("", "kelmctl");
    const std::vector<kelm::ctl::Command> commands = kelm::ctl::addCommands(app);
    try {
        checkCommand(app, std::span(argv, static_cast<size_t>(argc)).subspan(1));
        app.parse(argc, argv);
        for (const kelm::ctl::Command& command : commands) {
            if (command.app->parsed()) return command.run();
        }
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return fail(error.what() + helpFor(commands), kUsageStatus);
    } catch (const kelm::ctl::UsageError& error) {
        return fail(error.what(), kUsageStatus);
    } catch (const std::exception& error) {
        return fail(error.what(), 1);
    }
    return 1;
}
