// How texts that others have made come onto a terminal or into a page: names, labels, lines of a log, file names.
#pragma once

#include <string>
#include <string_view>

namespace talvik_tool {

// Control characters, line ends among them, as "\x0A": they neither steer a terminal nor pass for lines of this
// program.
std::string printable(std::string_view text);

// For scripts: ASCII alone, everything else as JSON's own escapes. What is not UTF-8 is replaced.
template <class Json>
std::string jsonText(const Json& json) {
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace talvik_tool
