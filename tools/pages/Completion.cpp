#include "tools/pages/Completion.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "tools/kelmctl/CommandTree.h"
#include "tools/pages/CommandFacts.h"

namespace kelm::pages {

namespace {

bool takesFile(const OptionFacts& option) {
    return option.kind == ctl::kFileKind || option.kind == "DIRECTORY";
}

// The help is no option of the program's own, but of each command.
std::vector<OptionFacts> offered(const CLI::App& command) {
    std::vector<OptionFacts> options = listOptions(command);
    OptionFacts& help = options.emplace_back();
    help.names = {"-h", "--help"};
    help.text = command.get_help_ptr()->get_description();
    return options;
}

// Paths of commands are written as in "config check"; the program's own is empty.
std::string joined(const std::string& path, const std::string& name) {
    return path.empty() ? name : fmt::format("{} {}", path, name);
}

void addBashCases(const CLI::App& command, const std::string& path, std::string& steps,
                  std::string& cases) {
    std::string commands;
    for (const CLI::App* part : command.get_subcommands(nullptr)) {
        const std::string& name = part->get_name();
        const std::string below = joined(path, name);
        commands += (commands.empty() ? "" : " ") + name;
        steps += fmt::format("            '{}:{}') path='{}' ;;\n", path, name, below);
        addBashCases(*part, below, steps, cases);
    }
    std::string options;
    std::string files;
    std::string values;
    bool isFile = false;
    for (const OptionFacts& option : offered(command)) {
        if (option.isArgument) {
            isFile = isFile || takesFile(option);
            continue;
        }
        options += option.names.back() + " ";
        for (const std::string& name : option.names) {
            if (takesFile(option)) {
                files += name + " ";
            } else if (!option.kind.empty() && !option.mayGoWithout) {
                values += name + " ";
            }
        }
    }
    cases += fmt::format(
        "        '{}') commands='{}' options='{}' files=' {}' values=' {}' argument={} ;;\n", path,
        commands, options, files, values, isFile ? "file" : "''");
}

// In the quotes of zsh, where brackets and colons end a part of an option.
std::string zshText(const std::string& text) {
    std::string quoted;
    for (const char c : text) {
        if (c == '[' || c == ']' || c == ':' || c == '\\') quoted += '\\';
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted;
}

std::string zshValue(const OptionFacts& option) {
    if (option.kind.empty()) return "";
    const char* separator = option.mayGoWithout ? "::" : ":";
    return separator + zshText(option.kind) + ":" + (takesFile(option) ? "_files" : "");
}

// One name of one option, as _arguments takes it.
std::string zshOption(const OptionFacts& option, const std::string& name) {
    std::string others;
    if (!option.isRepeated) others = fmt::format("({})", fmt::join(option.names, " "));
    const bool isLong = name.starts_with("--") && !option.kind.empty();
    return fmt::format("'{}{}{}{}[{}]{}'", others, option.isRepeated ? "*" : "", name,
                       isLong                ? "="
                       : option.kind.empty() ? ""
                                             : "+",
                       zshText(option.text), zshValue(option));
}

std::string zshFunction(const std::string& program, const std::string& path) {
    std::string name = "_" + program;
    for (const char c : path.empty() ? "" : " " + path) name += c == ' ' ? '_' : c;
    return name;
}

void addZshFunctions(const std::string& program, const CLI::App& command, const std::string& path,
                     std::string& functions) {
    const auto parts = command.get_subcommands(nullptr);
    std::string text = fmt::format("\n{}() {{\n", zshFunction(program, path));
    if (!parts.empty()) text += "    local curcontext=$curcontext state line\n";
    text += parts.empty() ? "    _arguments" : "    _arguments -C";
    for (const OptionFacts& option : offered(command)) {
        if (option.isArgument) {
            text += fmt::format(" \\\n        '{}{}:{}:{}'", option.isRepeated ? "*" : "",
                                option.isRequired || option.isRepeated ? "" : ":",
                                zshText(option.text), takesFile(option) ? "_files" : "");
            continue;
        }
        for (const std::string& name : option.names) {
            text += " \\\n        " + zshOption(option, name);
        }
    }
    if (!parts.empty()) {
        text += " \\\n        '1:command:->command' '*::argument:->argument'\n";
        text += "    case $state in\n    command)\n        local -a commands=(\n";
        std::string calls;
        for (const CLI::App* part : parts) {
            const std::string& name = part->get_name();
            const std::string below = joined(path, name);
            text += fmt::format("            '{}:{}'\n", name, zshText(part->get_description()));
            calls += fmt::format("        {}) {} ;;\n", name, zshFunction(program, below));
            addZshFunctions(program, *part, below, functions);
        }
        text += "        )\n        _describe command commands\n        ;;\n";
        text += "    argument)\n        case $line[1] in\n" + calls + "        esac\n        ;;\n";
        text += "    esac";
    }
    functions += text + "\n}\n";
}

}  // namespace

std::string bashCompletion(const CLI::App& program) {
    std::string steps;
    std::string cases;
    addBashCases(program, "", steps, cases);
    // "=" is a word of its own between an option and its value.
    const std::string& name = program.get_name();
    return "# Completion of " + name + " for bash; made from its commands.\n_" + name + R"(() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local path='' commands options files values argument i
    if [ "$word" = = ]; then
        word=''
    elif [ "$before" = = ]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$path:${COMP_WORDS[i]}" in
)" + steps +
           R"(        esac
    done
    case "$path" in
)" + cases +
           R"(    esac
    COMPREPLY=()
    if [[ "$files" = *" $before "* ]]; then
        argument=file
    elif [[ "$values" = *" $before "* ]]; then
        return
    elif [[ "$word" = -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
    elif [ -n "$commands" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
        return
    fi
    [ "$argument" = file ] || return
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    compopt -o filenames 2>/dev/null
}
complete -F _)" +
           name + " " + name + "\n";
}

std::string zshCompletion(const CLI::App& program) {
    std::string functions;
    addZshFunctions(program.get_name(), program, "", functions);
    const std::string& name = program.get_name();
    return "#compdef " + name + "\n# Completion of " + name +
           " for zsh; made from its commands.\n" + functions + "\n_" + name + " \"$@\"\n";
}

}  // namespace kelm::pages
