#include "tools/pages/ManPages.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "shell/CommandLineParser.h"
#include "tools/pages/Roff.h"
#include "tools/pages/Tables.h"

namespace kelm::pages {

namespace {

struct Title {
    std::string name;
    int section;
    std::string text;

    std::string file() const { return fmt::format("man{0}/{1}.{0}", section, name); }
    std::string reference() const { return fmt::format("`{}`({})", name, section); }
};

const Title kDaemon{"kelmdaemon", 8, "share neural-network accelerators among programs"};
const Title kGateway{"kelm-gateway", 8, "serve models by the Open Inference Protocol"};
const Title kConfig{"kelm_service.config", 5, "configuration of kelmdaemon"};
// The pages of docs/ of which the same sections go into several pages of the manual.
constexpr const char* kToolPage = "kelmctl.md";
constexpr const char* kConfigPage = "configuration.md";
constexpr const char* kOperatingPage = "operating.md";
constexpr const char* kGatewayPage = "gateway.md";
constexpr const char* kExitStatus = "Exit status and errors";

std::string sentence(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text + ".";
}

// A page of the manual, written from its top to its end.
class Page {
 public:
    explicit Page(const Title& title) : m_title(title) {
        std::string upper = title.name;
        std::ranges::transform(upper, upper.begin(), ::toupper);
        m_text = fmt::format(".TH \"{}\" {} \"\" \"kelmdaemon {}\" \"kelmdaemon\"\n", upper,
                             title.section, KELM_VERSION);
        m_text += ".SH NAME\n";
        for (const char c : title.name) m_text += c == '-' ? "\\-" : std::string(1, c);
        m_text += " \\- " + title.text + "\n";
    }

    void add(const std::string& heading, const std::string& markdown) {
        m_text += toRoff({"# " + heading}, 1) + toRoff(splitLines(markdown), 1);
    }
    void add(const std::string& heading, const Docs& docs, const char* file,
             const std::string& section) {
        const DocPage::Section found = docs.at(file).section(section);
        m_text += toRoff({"# " + heading}, 1) + toRoff(found.lines, found.level);
    }
    // `lines` with headings of their own, the highest of this level.
    void add(const Lines& lines, size_t level) { m_text += toRoff(lines, level); }

    void addTo(std::map<std::string, std::string>& manual, std::vector<std::string> seeAlso) {
        std::erase(seeAlso, m_title.reference());
        add("See also", fmt::format("{}", fmt::join(seeAlso, ", ")));
        manual[m_title.file()] = m_text;
    }

 private:
    const Title m_title;
    std::string m_text;
};

Title titleOf(const CLI::App& command) {
    return {"kelmctl-" + command.get_name(), 1, command.get_description()};
}

std::vector<OptionFacts> daemonOptions() {
    std::vector<OptionFacts> options;
    for (const auto& [name, letter, takesFiles, text] : CommandLineParser::listOptions()) {
        OptionFacts& option = options.emplace_back();
        if (!letter.empty()) option.names.push_back("-" + letter);
        option.names.push_back("--" + name);
        option.text = text;
        if (takesFiles) option.kind = "FILE...";
    }
    return options;
}

std::string synopses(const CLI::App& command) {
    std::string text = "```\n";
    for (const CommandFacts& leaf : listLeaves(command)) text += synopsis(leaf) + "\n";
    return text + "```";
}

std::string options(const CLI::App& command) {
    const std::vector<CommandFacts> leaves = listLeaves(command);
    std::string text;
    for (const CommandFacts& leaf : leaves) {
        if (leaves.size() > 1) {
            text += "## kelmctl " + leaf.path + "\n" + sentence(leaf.text) + "\n";
        }
        if (!leaf.options.empty()) text += optionTable(leaf.options);
    }
    return text;
}

Page commandPage(const CLI::App& command, const Docs& docs) {
    Page page(titleOf(command));
    const std::string block = "kelmctl " + command.get_name();
    const DocPage::Section prose = pageOf(docs, block).sectionAround(block);
    const Lines rest = prose.rest();
    page.add("Synopsis", synopses(command));
    // A page of its own begins with what the command does.
    const bool isOwn = prose.level == 1;
    page.add("Description", isOwn ? "" : sentence(command.get_description()));
    page.add(prose.intro(), prose.level + 1);
    if (const std::string text = options(command); !text.empty()) page.add("Options", text);
    page.add(rest, prose.level + 1);
    if (std::ranges::count(rest, "## Exit status") == 0) {
        page.add("Exit status", docs, kToolPage, kExitStatus);
    }
    page.add("Environment", docs, kConfigPage, "Environment");
    page.add("Files", docs, kToolPage, "Files");
    return page;
}

Page gatewayPage(const CLI::App& gateway, const Docs& docs) {
    Page page(kGateway);
    const DocPage::Section start = docs.at(kGatewayPage).sectionAround(gateway.get_name());
    page.add("Synopsis", "`kelm-gateway --models DIRECTORY [OPTION...]`");
    page.add(
        "Description",
        "Serves models to other machines: a client of the service of `kelmdaemon`(8) that speaks "
        "the Open Inference Protocol, version 2, by HTTP and gRPC.");
    page.add(start.lines, start.level);
    page.add("Options", optionTable(listOptions(gateway)));
    for (const char* section : {"Model descriptions", "Limits", "Errors", "Metrics",
                                "The access log", "The agent's port", "The end"}) {
        page.add(section, docs, kGatewayPage, section);
    }
    page.add("Environment", docs, kConfigPage, "Environment");
    return page;
}

}  // namespace

const DocPage& pageOf(const Docs& docs, const std::string& block) {
    for (const auto& [name, page] : docs) {
        const std::vector<std::string> blocks = page.blocks();
        if (std::ranges::count(blocks, block) > 0) return page;
    }
    throw std::runtime_error(fmt::format(
        "no page of docs/ has the part '{0}'; write where it belongs: <!-- generated: {0} --> and "
        "below it <!-- end -->",
        block));
}

std::map<std::string, std::string> makeManPages(const CLI::App& kelmctl, const CLI::App& gateway,
                                                const Docs& docs) {
    std::map<std::string, std::string> manual;
    const Title title{kelmctl.get_name(), 1, kelmctl.get_description()};
    std::vector<std::string> seeAlso{title.reference(), kConfig.reference(), kGateway.reference(),
                                     kDaemon.reference()};
    std::string commands = "| Command | |\n|---|---|\n";
    for (const CLI::App* command : kelmctl.get_subcommands(nullptr)) {
        commandPage(*command, docs).addTo(manual, seeAlso);
        commands +=
            fmt::format("| {} | {} |\n", titleOf(*command).reference(), command->get_description());
    }

    Page tool(title);
    const DocPage::Section intro = docs.at(kToolPage).sectionAround("commands");
    tool.add("Synopsis", "`kelmctl COMMAND [OPTION...] [ARGUMENT...]`");
    tool.add("Description", sentence(title.text));
    tool.add(intro.intro(), 2);
    tool.add("Commands", commands);
    tool.add("Options", optionTable(listOptions(kelmctl)));
    tool.add("Exit status", docs, kToolPage, kExitStatus);
    tool.add("Environment", docs, kConfigPage, "Environment");
    tool.add("Files", docs, kToolPage, "Files");
    tool.addTo(manual, seeAlso);

    Page daemon(kDaemon);
    daemon.add("Synopsis", "`kelmdaemon [OPTION...]`");
    daemon.add(
        "Description",
        "Owns a pool of USB neural-network accelerators, or simulated ones, and runs on them "
        "what its clients hand over through a Unix socket.");
    daemon.add("Options", optionTable(daemonOptions()));
    daemon.add("Start and stop", docs, kOperatingPage, "Start and stop");
    daemon.add("Exit status", docs, kOperatingPage, "Exit statuses");
    daemon.add("Log", docs, kOperatingPage, "Log");
    daemon.add("Environment", docs, kConfigPage, "Environment");
    daemon.add("Files", docs, kOperatingPage, "Files");
    daemon.addTo(manual, seeAlso);

    gatewayPage(gateway, docs).addTo(manual, seeAlso);

    Page config(kConfig);
    config.add("Description", "");
    config.add(docs.at(kConfigPage).section("Configuration").lines, 2);
    config.addTo(manual, seeAlso);
    return manual;
}

}  // namespace kelm::pages
