// rlctl completion SHELL: completion scripts made from the option tree itself, so that they never
// fall behind it.

#include <fmt/format.h>

#include "cli/Commands.h"

namespace {

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// All names of an option as they are typed: "--json", "-q".
std::vector<std::string> optionNames(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
        for (const std::string& name : option->get_snames())
            names.push_back("-" + name);
    }
    return names;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App*) { return true; });
}

std::string bashScript(const CLI::App& app)
{
    std::vector<std::string> names;
    std::string cases;
    for (const CLI::App* command : commandsOf(app)) {
        names.push_back(command->get_name());
        cases += fmt::format("        {}) words=\"{}\" ;;\n", command->get_name(),
                             joined(optionNames(*command)));
    }
    return fmt::format("_rlctl() {{\n"
                       "    local cur=\"${{COMP_WORDS[COMP_CWORD]}}\" words=\"\"\n"
                       "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
                       "        words=\"{} {}\"\n"
                       "        COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
                       "        return\n"
                       "    fi\n"
                       "    case \"${{COMP_WORDS[1]}}\" in\n"
                       "{}"
                       "    esac\n"
                       "    if [ \"${{cur#-}}\" != \"$cur\" ]; then\n"
                       "        COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
                       "    else\n"
                       "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
                       "    fi\n"
                       "}}\n"
                       "complete -o filenames -F _rlctl rlctl\n",
                       joined(names), joined(optionNames(app)), cases);
}

// A text within single quotes.
std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

std::string zshScript(const CLI::App& app)
{
    std::string commands;
    std::string cases;
    for (const CLI::App* command : commandsOf(app)) {
        commands +=
            "        " + quoted(command->get_name() + ":" + command->get_description()) + "\n";
        cases += fmt::format("        {}) words=({}) ;;\n", command->get_name(),
                             joined(optionNames(*command)));
    }
    return fmt::format("#compdef rlctl\n"
                       "_rlctl() {{\n"
                       "    local -a commands words\n"
                       "    commands=(\n"
                       "{}"
                       "    )\n"
                       "    if (( CURRENT == 2 )); then\n"
                       "        _describe command commands\n"
                       "        return\n"
                       "    fi\n"
                       "    case $words[2] in\n"
                       "{}"
                       "    esac\n"
                       "    if [[ $PREFIX == -* ]]; then\n"
                       "        compadd -- $words\n"
                       "    else\n"
                       "        _files\n"
                       "    fi\n"
                       "}}\n"
                       "compdef _rlctl rlctl\n",
                       commands, cases);
}

std::string fishScript(const CLI::App& app)
{
    std::string script;
    for (const CLI::App* command : commandsOf(app)) {
        script += fmt::format("complete -c rlctl -n __fish_use_subcommand -a {} -d {}\n",
                              command->get_name(), quoted(command->get_description()));
        for (const CLI::Option* option : command->get_options()) {
            std::string names;
            for (const std::string& name : option->get_lnames())
                names += " -l " + name;
            for (const std::string& name : option->get_snames())
                names += " -s " + name;
            if (names.empty())
                continue;
            script += fmt::format(
                "complete -c rlctl -n '__fish_seen_subcommand_from {}'{}{} -d {}\n",
                command->get_name(), names, option->get_items_expected_max() > 0 ? " -r" : "",
                quoted(option->get_description()));
        }
    }
    return script;
}

} // namespace

void addCompletion(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "completion", "Print a shell's completion script",
                                   "rlctl completion bash > /etc/bash_completion.d/rlctl",
                                   "rlctl completion fish > ~/.config/fish/completions/rlctl.fish");
    auto shell = std::make_shared<std::string>();
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->callback([&app, &context, shell] {
        context.setAction([&app, &context, shell] {
            context.result(*shell == "bash"  ? bashScript(app)
                           : *shell == "zsh" ? zshScript(app)
                                             : fishScript(app));
            return Result();
        });
    });
}
