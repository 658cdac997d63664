#include <cstring>

#include "e2e/surroundings.h"
#include "support/log_reader.h"

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--role") == 0) {
        return e2e::playRole(argv[2]);
    }
    ::testing::InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    const int result = RUN_ALL_TESTS();
    std::error_code busy;
    std::filesystem::remove_all(e2e::workFolder(), busy);
    return result;
}
