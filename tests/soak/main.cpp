#include <cstring>

#include "e2e/surroundings.h"
#include "soak/roles.h"
#include "support/log_reader.h"

const e2e::Roles e2e::roles = {{"exit-during-call", soak::exitDuringCall},
                               {"exit-under-dialog", soak::exitUnderDialog},
                               {"load", soak::loadAndFree},
                               {"secrets", soak::keepSecrets}};

// Roles tell what they found wrong as test failures too: the exit status counts them in.
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0) {
        const auto role = e2e::roles.find(argv[2]);
        return role == e2e::roles.end() ? 99 : role->second(argv[3]);
    }
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    return RUN_ALL_TESTS();
}
