#include <cstring>

#include "e2e/surroundings.h"
#include "support/log_reader.h"

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0) {
        const auto role = e2e::roles.find(argv[2]);
        return role == e2e::roles.end() ? 99 : role->second(argv[3]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    return RUN_ALL_TESTS();
}
