#include "tools/pages/Tables.h"

#include <fmt/format.h>

#include <limits>

#include "config/ConfigKeys.h"

namespace kelm::pages {

namespace {

std::string kindOf(const ConfigKey& key) {
    switch (key.kind) {
        case ConfigKind::kInteger:
            return "integer";
        case ConfigKind::kNumber:
            return "number";
        case ConfigKind::kBoolean:
            return "boolean";
        case ConfigKind::kSwitch:
            return "switch";
        case ConfigKind::kDirectory:
            return "directory";
        case ConfigKind::kHexadecimal:
            return "hexadecimal";
        case ConfigKind::kTags:
            return "object";
        case ConfigKind::kText:
        case ConfigKind::kGroup:
            break;
    }
    return "text";
}

std::string defaultOf(const ConfigKey& key) {
    const bool isPlain = key.kind <= ConfigKind::kBoolean || key.kind == ConfigKind::kTags;
    return isPlain ? key.byDefault : fmt::format("\"{}\"", key.byDefault);
}

// Which values are used as they are, and what counts in place of others.
std::string valuesOf(const ConfigKey& key) {
    std::vector<std::string> parts;
    for (const ConfigBounds::Low& low : key.bounds.low) {
        if (low.below == std::numeric_limits<int>::min()) continue;
        parts.push_back(fmt::format("below {} counts as {}", low.below, low.instead));
    }
    if (const int most = key.bounds.most; most != std::numeric_limits<int>::max()) {
        parts.push_back(fmt::format("above {0} counts as {0}", most));
    }
    if (!key.choices.words.empty()) {
        std::string words;
        for (const char c : key.choices.words) words += c == '|' ? "\", \"" : std::string(1, c);
        parts.push_back(fmt::format("\"{}\"{}", words, key.choices.anyCase ? ", in any case" : ""));
        parts.push_back(fmt::format("any other counts as \"{}\"", key.choices.others));
    }
    if (key.kind == ConfigKind::kDirectory)
        parts.emplace_back("one that is not there counts as empty");
    if (key.kind == ConfigKind::kHexadecimal) parts.emplace_back("no such number counts as 0");
    return fmt::format("{}", fmt::join(parts, "; "));
}

}  // namespace

std::string optionTable(const std::vector<OptionFacts>& options) {
    std::string table = "| Option | Default | Meaning |\n|---|---|---|\n";
    for (const OptionFacts& option : options) {
        table +=
            fmt::format("| `{}` | {} | {} |\n", written(option), option.byDefault, option.text);
    }
    return table;
}

std::string commandBlock(const CLI::App& command) {
    const std::vector<CommandFacts> leaves = listLeaves(command);
    std::string text = "```text\n";
    for (const CommandFacts& leaf : leaves) text += synopsis(leaf) + "\n";
    text += "```\n";
    for (const CommandFacts& leaf : leaves) {
        if (leaves.size() > 1) text += fmt::format("\n`{}`: {}\n", leaf.path, leaf.text);
        if (!leaf.options.empty()) text += "\n" + optionTable(leaf.options);
    }
    return text;
}

void addKeyBlocks(Blocks& blocks) {
    for (const ConfigKey& key : kConfigKeys) {
        const std::string path = key.path;
        const size_t dot = path.rfind('.');
        std::string& block = blocks["keys " + path.substr(0, dot)];
        if (block.empty()) {
            block = "| Key | Type | Default | Values | Meaning |\n|---|---|---|---|---|\n";
        }
        block += fmt::format("| `{}` | {} | {} | {} | {} |\n", path.substr(dot + 1), kindOf(key),
                             defaultOf(key), valuesOf(key), key.text);
    }
}

}  // namespace kelm::pages
