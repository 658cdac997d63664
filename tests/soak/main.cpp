#include <cstring>
#include <map>

#include "e2e/surroundings.h"
#include "soak/roles.h"
#include "support/log_reader.h"

int e2e::playRole(const std::string& role, const std::string& name) {
    static const std::map<std::string, int (*)(const std::string&)> roles = {
        {"exit-during-call", soak::exitDuringCall},
        {"exit-under-dialog", soak::exitUnderDialog},
        {"load", soak::loadAndFree},
        {"secrets", soak::keepSecrets}};
    const auto found = roles.find(role);
    return found == roles.end() ? 99 : found->second(name);
}

// Roles tell what they found wrong as test failures too: the exit status counts them in.
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0) {
        return e2e::playRole(argv[2], argv[3]);
    }
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    return RUN_ALL_TESTS();
}
