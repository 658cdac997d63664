#include "e2e/surroundings.h"
#include "support/log_reader.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    const int result = RUN_ALL_TESTS();
    std::error_code busy;
    std::filesystem::remove_all(e2e::workFolder(), busy);
    return result;
}
