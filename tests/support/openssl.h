// The build machine's openssl, started from a program under Wine: an independent judge of what the token computes.
#pragma once

#include "support/scratch.h"

namespace talvik_test {

struct OpensslResult {
    int exitCode;
    std::string output;  // standard output and standard error
};

// Runs "openssl ARGUMENTS" through the shell, in `folder`.
OpensslResult tryOpenssl(const ScratchFolder& folder, const std::string& arguments);

// The same; throws, with what openssl said, when it fails.
std::string openssl(const ScratchFolder& folder, const std::string& arguments);

}  // namespace talvik_test
