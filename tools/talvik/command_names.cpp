#include "command_names.h"

#include <algorithm>
#include <numeric>

namespace talvik_tool {
namespace {

// How many letters must be put in, left out or changed to make one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t k = 0; k < to.size(); ++k) {
            const std::size_t changed = diagonal + (from[i] == to[k] ? 0 : 1);
            diagonal = row[k + 1];
            row[k + 1] = std::min({changed, row[k] + 1, row[k + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string unknownCommand(const CLI::App& app, const std::vector<std::string>& words) {
    const CLI::App* family = &app;
    std::string path;
    for (const std::string& word : words) {
        const auto commands = family->get_subcommands([](const CLI::App*) { return true; });
        if (commands.empty() || word.starts_with('-') || !family->get_require_subcommand_min()) {
            return "";
        }
        const auto named =
            std::ranges::find_if(commands, [&word](const CLI::App* each) { return each->get_name() == word; });
        if (named != commands.end()) {
            family = *named;
            path.append(word).append(" ");
            continue;
        }
        const CLI::App* nearest = *std::ranges::min_element(
            commands, {}, [&word](const CLI::App* each) { return distance(word, each->get_name()); });
        std::string answer = "there is no command \"";
        answer.append(path).append(word).append("\"; the nearest is \"").append(path).append(nearest->get_name());
        return answer.append("\"");
    }
    return "";
}

}  // namespace talvik_tool
