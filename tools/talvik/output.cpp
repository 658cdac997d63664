#include "output.h"

#include <iostream>
#include <nlohmann/json.hpp>

namespace talvik_tool {

void print(const std::string& line) {
    std::cout << line << "\n";
}

void printJson(const nlohmann::ordered_json& json) {
    // What a token says of itself need not be UTF-8.
    std::cout << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

}  // namespace talvik_tool
