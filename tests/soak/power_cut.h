// The virtual token's process dies in the middle of a write.
#pragma once

#include <string>

namespace talvik_test {

// What the process that is to die does: works on the token, and keeps a journal of what it has begun and what was
// confirmed. `plan` is "SEED:STEP": it ends itself at that file operation of the device library's (0: it goes on until
// it is killed).
int workUntilCut(const std::string& plan);

}  // namespace talvik_test
