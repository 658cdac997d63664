// Tries the provider as an ordinary program would: through the operating system's CryptoAPI, by its name alone.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "doctor_findings.h"

namespace talvik_tool {

struct SelfTestStep {
    std::string name;
    bool passed = false;
    std::string detail;  // what failed, with the error and what the provider logged
};

struct SignRequest {
    std::string container;  // of the key to sign with
    std::string pin;        // empty: the provider asks for it in its own dialog
};

// `withToken`: on the first token; otherwise without any. Signs only when there is a request.
std::vector<SelfTestStep> runSelfTest(bool withToken, const std::optional<SignRequest>& request, Findings& findings);

}  // namespace talvik_tool
