#include "tools/pages/CommandFacts.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>

namespace kelm::pages {

namespace {

// More of them would hide what a command needs.
constexpr std::ptrdiff_t kMostInSynopsis = 3;

std::string upper(std::string text) {
    std::ranges::transform(text, text.begin(), ::toupper);
    return text;
}

OptionFacts toFacts(const CLI::Option& option) {
    OptionFacts facts;
    for (const std::string& name : option.get_snames()) facts.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) facts.names.push_back("--" + name);
    facts.isArgument = facts.names.empty();
    if (facts.isArgument) facts.names.push_back(upper(option.get_name(true)));
    if (option.get_items_expected_max() > 0) facts.kind = option.get_type_name();
    facts.text = option.get_description();
    facts.isRequired = option.get_required();
    facts.isRepeated = option.get_expected_max() > 1;
    facts.mayGoWithout = !facts.kind.empty() && option.get_expected_min() == 0;
    if (!facts.mayGoWithout) facts.byDefault = option.get_default_str();
    return facts;
}

std::string valueOf(const OptionFacts& option) {
    if (option.isArgument) return option.isRepeated ? "..." : "";
    if (option.kind.empty()) return "";
    return option.mayGoWithout ? " [" + option.kind + "]" : " " + option.kind;
}

}  // namespace

std::vector<OptionFacts> listOptions(const CLI::App& command) {
    std::vector<OptionFacts> options;
    for (const CLI::Option* option : command.get_options()) {
        if (option != command.get_help_ptr()) options.push_back(toFacts(*option));
    }
    return options;
}

std::vector<CommandFacts> listLeaves(const CLI::App& command) {
    const std::string& name = command.get_name();
    const auto parts = command.get_subcommands(nullptr);
    if (parts.empty()) return {{name, command.get_description(), listOptions(command)}};
    std::vector<CommandFacts> leaves;
    for (const CLI::App* part : parts) {
        for (CommandFacts& leaf : listLeaves(*part)) {
            leaf.path.insert(0, name + " ");
            leaves.push_back(std::move(leaf));
        }
    }
    return leaves;
}

std::string written(const OptionFacts& option) {
    const std::string names = fmt::format("{}", fmt::join(option.names, ", "));
    return names + valueOf(option);
}

// First what is required, last what has its place. The long name of an option stands for all.
std::string synopsis(const CommandFacts& command) {
    const auto isOptional = [](const OptionFacts& option) {
        return !option.isRequired && !option.isArgument;
    };
    const bool isShort = std::ranges::count_if(command.options, isOptional) <= kMostInSynopsis;
    std::string required;
    std::string optional = isShort ? "" : " [OPTION...]";
    std::string arguments;
    for (const OptionFacts& option : command.options) {
        const std::string word = option.names.back() + valueOf(option);
        if (option.isArgument) {
            arguments += option.isRequired ? " " + word : " [" + word + "]";
        } else if (option.isRequired) {
            required += " " + word;
        } else if (isShort) {
            optional += " [" + word + "]";
        }
    }
    return "kelmctl " + command.path + required + optional + arguments;
}

}  // namespace kelm::pages
