// What the test program does as a second process: each role is a function that answers the exit status.
#pragma once

#include <string>

namespace soak {

int exitDuringCall(const std::string& name);
int exitUnderDialog(const std::string& name);
int loadAndFree(const std::string& cycles);
int keepSecrets(const std::string& how);

}  // namespace soak
