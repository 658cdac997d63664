// What commands print, whatever others have put into it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace talvik_tool {

void print(const std::string& line);  // and a line end
void printJson(const nlohmann::ordered_json& json);

}  // namespace talvik_tool
