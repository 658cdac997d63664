#include "completion.h"

#include <array>
#include <iostream>
#include <memory>

namespace talvik_tool {
namespace {

// One line for each command: "talvik token create=--id --label ...".
void collect(const CLI::App& app, const std::string& path, std::vector<std::string>& lines) {
    std::string words;
    const auto add = [&words](const std::string& word) { words += (words.empty() ? "" : " ") + word; };
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* command : commands) {
        add(command->get_name());
    }
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            add("--" + name);
        }
    }
    lines.push_back(path + "=" + words);
    for (const CLI::App* command : commands) {
        collect(*command, path + " " + command->get_name(), lines);
    }
}

// Words are looked up for the commands that stand on the line so far.
constexpr char bashBegin[] = R"script(# eval "$(talvik completion bash)", in .bashrc
_talvik_words() {
    case "$1" in
)script";
constexpr char bashEnd[] = R"script(    esac
}
_talvik() {
    local path=talvik word i
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        [ -z "$(_talvik_words "$path $word")" ] || path="$path $word"
    done
    mapfile -t COMPREPLY < <(compgen -W "$(_talvik_words "$path")" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _talvik talvik talvik.exe
)script";

constexpr char powershellBegin[] = R"script(# talvik completion powershell | Out-String | Invoke-Expression, in $PROFILE
$talvikWords = @{
)script";
constexpr char powershellEnd[] = R"script(}
Register-ArgumentCompleter -Native -CommandName talvik, talvik.exe -ScriptBlock {
    param($word, $line, $cursor)
    $path = 'talvik'
    foreach ($each in ($line.CommandElements | Select-Object -Skip 1)) {
        if ($talvikWords.ContainsKey("$path $each")) { $path = "$path $each" }
    }
    $talvikWords[$path] -split ' ' | Where-Object { $_ -like "$word*" } |
        ForEach-Object { [System.Management.Automation.CompletionResult]::new($_) }
}
)script";

void printScript(const CLI::App& app, bool bash) {
    std::vector<std::string> lines;
    collect(app, "talvik", lines);
    std::cout << (bash ? bashBegin : powershellBegin);
    for (const std::string& line : lines) {
        const std::string path = line.substr(0, line.find('=')), words = line.substr(path.size() + 1);
        const std::array parts =
            bash ? std::array{"        \"", "\") echo \"", "\" ;;\n"} : std::array{"    '", "' = '", "'\n"};
        std::cout << parts[0] << path << parts[1] << words << parts[2];
    }
    std::cout << (bash ? bashEnd : powershellEnd);
}

}  // namespace

void addCompletionCommand(CLI::App& app) {
    CLI::App* family = app.add_subcommand("completion", "Print completions of a shell");
    family->require_subcommand(1);
    const auto add = [&app, family](const char* shell, bool bash) {
        family->add_subcommand(shell, std::string("Of ") + shell)->callback([&app, bash] { printScript(app, bash); });
    };
    add("bash", true);
    add("powershell", false);
}

}  // namespace talvik_tool
