// Makes what people read of the programs: the manual and the completion at each build, and the
// generated parts of docs/ when somebody asks for it.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <set>
#include <stdexcept>

#include "tools/gateway/CommandLine.h"
#include "tools/kelmctl/CommandTree.h"
#include "tools/pages/CommandFacts.h"
#include "tools/pages/Completion.h"
#include "tools/pages/ManPages.h"
#include "tools/pages/Tables.h"

namespace {

using kelm::pages::Blocks;
using kelm::pages::DocPage;
using kelm::pages::Docs;
namespace fs = std::filesystem;

void write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream stream(file);
    stream << text;
    if (!stream.flush()) throw std::runtime_error(file.string() + " cannot be written");
}

Docs loadDocs(const fs::path& directory) {
    Docs docs;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().extension() != ".md") continue;
        docs.emplace(entry.path().filename().string(), DocPage(entry.path()));
    }
    return docs;
}

// All commands, with the places where docs/ has more of them.
std::string commandTable(const CLI::App& kelmctl, const Docs& docs) {
    const DocPage& here = kelm::pages::pageOf(docs, "commands");
    std::string table = "| Command | Does |\n|---|---|\n";
    for (const CLI::App* command : kelmctl.get_subcommands(nullptr)) {
        const std::string& name = command->get_name();
        const DocPage& page = kelm::pages::pageOf(docs, "kelmctl " + name);
        const bool isSection = page.sectionAround("kelmctl " + name).level > 1;
        table += fmt::format("| [`{}`]({}{}) | {} |\n", name,
                             &page == &here ? "" : page.file().filename().string(),
                             isSection ? "#" + name : "", command->get_description());
    }
    return table;
}

// Of what the pages tell.
struct Programs {
    CLI::App kelmctl{"", "kelmctl"};
    kelm::gateway::Options options;
    CLI::App gateway{"", "kelm-gateway"};

    Programs() {
        kelm::ctl::addCommands(kelmctl);
        kelm::gateway::addOptions(gateway, options);
    }
};

Blocks makeBlocks(const Programs& programs, const Docs& docs) {
    const CLI::App& kelmctl = programs.kelmctl;
    Blocks blocks;
    for (const CLI::App* command : kelmctl.get_subcommands(nullptr)) {
        blocks["kelmctl " + command->get_name()] = kelm::pages::commandBlock(*command);
    }
    blocks["kelm-gateway"] = kelm::pages::optionTable(kelm::pages::listOptions(programs.gateway));
    blocks["commands"] = commandTable(kelmctl, docs);
    kelm::pages::addKeyBlocks(blocks);
    for (const auto& [name, text] : blocks) kelm::pages::pageOf(docs, name);
    return blocks;
}

// The pages as they should be.
Docs fill(Docs docs, const Blocks& blocks) {
    for (auto& [name, page] : docs) {
        for (const std::string& block : page.blocks()) {
            const auto text = blocks.find(block);
            if (text == blocks.end()) {
                throw std::runtime_error(fmt::format(
                    "{}: nothing is generated for '{}'; correct or remove the two comments",
                    page.file().string(), block));
            }
            page.fill(block, text->second);
        }
    }
    return docs;
}

std::set<std::string> allOptions(const CLI::App& kelmctl) {
    std::set<std::string> names{"--help"};
    const auto add = [&](const std::vector<kelm::pages::OptionFacts>& options) {
        for (const auto& option : options) names.insert(option.names.begin(), option.names.end());
    };
    add(kelm::pages::listOptions(kelmctl));
    for (const auto& leaf : kelm::pages::listLeaves(kelmctl)) add(leaf.options);
    return names;
}

// A line for each fault: a part that is not as it should be, an option in the prose that there is
// not.
int check(const CLI::App& kelmctl, const Docs& docs, const Docs& filled) {
    static const std::regex kOption(R"((^|[^-\w])(--[a-z][a-z0-9-]*))");
    const std::set<std::string> known = allOptions(kelmctl);
    int faults = 0;
    const auto tell = [&](const DocPage& page, const std::string& text) {
        std::cerr << page.file().string() << ": " << text << "\n";
        ++faults;
    };
    for (const auto& [name, page] : docs) {
        const std::string text = page.text();
        if (text != filled.at(name).text()) {
            tell(page,
                 "its generated parts are not those of the programs; renew them: cmake "
                 "--build BUILD --target renew_docs");
        }
        const std::vector<std::string> blocks = page.blocks();
        if (std::ranges::none_of(blocks, [](const auto& b) { return b.starts_with("kelmctl "); })) {
            continue;
        }
        for (std::sregex_iterator it(text.begin(), text.end(), kOption), end; it != end; ++it) {
            const std::string option = (*it)[2];
            if (!known.contains(option)) tell(page, "no command has the option " + option);
        }
    }
    return faults == 0 ? 0 : 1;
}

int run(const std::string& order, const fs::path& directory, const fs::path& output) {
    const Programs programs;
    const Docs docs = loadDocs(directory);
    const Docs filled = fill(docs, makeBlocks(programs, docs));
    if (order == "check") return check(programs.kelmctl, docs, filled);
    if (order == "renew") {
        for (const auto& [name, page] : filled) {
            if (page.text() != docs.at(name).text()) write(page.file(), page.text());
        }
        return 0;
    }
    for (const auto& [file, text] :
         kelm::pages::makeManPages(programs.kelmctl, programs.gateway, filled)) {
        write(output / "man" / file, text);
    }
    for (const CLI::App* program : {&programs.kelmctl, &programs.gateway}) {
        const std::string& name = program->get_name();
        write(output / "bash-completion/completions" / name, kelm::pages::bashCompletion(*program));
        write(output / "zsh/vendor-completions" / ("_" + name),
              kelm::pages::zshCompletion(*program));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const bool isCall = (words.size() == 2 && (words[0] == "check" || words[0] == "renew")) ||
                        (words.size() == 3 && words[0] == "make");
    if (!isCall) {
        std::cerr << "usage: kelm_pages check DOCS | renew DOCS | make DOCS OUTPUT\n";
        return 2;
    }
    try {
        return run(words[0], words[1], words.size() == 3 ? words[2] : "");
    } catch (const std::exception& error) {
        std::cerr << "kelm_pages: " << error.what() << "\n";
        return 1;
    }
}
