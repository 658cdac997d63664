// What only the virtual token's own files tell: which tokens there are, damaged and detached ones too, and their state.
#pragma once

#include <string>
#include <vector>

#include "doctor_findings.h"

namespace talvik_tool {

// Of every token of this user. `attached` are those that the device library shows. Gives those that take no PIN.
std::vector<std::string> inspectVirtualTokens(const std::vector<std::string>& attached, Findings& findings);

}  // namespace talvik_tool
