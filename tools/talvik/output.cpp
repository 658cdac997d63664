#include "output.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "printable.h"

namespace talvik_tool {

void print(const std::string& line) {
    std::cout << printable(line) << "\n";
}

void printJson(const nlohmann::ordered_json& json) {
    std::cout << jsonText(json);
}

}  // namespace talvik_tool
