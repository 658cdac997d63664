// What commands print, and the rules of the texts that they are given.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace talvik_tool {

void print(const std::string& line);  // and a line end
void printJson(const nlohmann::ordered_json& json);

}  // namespace talvik_tool
