// The level takes effect at the next call of whoever changed it, though a thread in a tight loop does not ask for it
// each time.
#include <atomic>
#include <thread>

#include "log/level.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

// Two lines and nothing else: the call has no context.
void refusedCall() {
    CPDestroyKey(0, 0);
}

class LogLevelTest : public ProviderTest {
  protected:
    ~LogLevelTest() override { setLogLevel(3); }
};

TEST_F(LogLevelTest, EveryLineOfTheThreadThatChangesItIsWhereItBelongs) {
    Lines expected;
    log.mark();
    for (int round = 0; round < 400; ++round) {
        const DWORD level = (round * 7 + round / 5) % 4;
        setLogLevel(level);
        for (int call = 0; call < round % 3 + 1; ++call) {
            refusedCall();
            if (level == 3)
                expected.push_back("DEBUG CPDestroyKey");
            if (level >= 2)
                expected.push_back("ERROR CPDestroyKey: invalid or uninitialized context");
        }
    }
    EXPECT_EQ(log.entries(), expected);
}

TEST_F(LogLevelTest, AnotherThreadInATightLoopSeesTheChange) {
    std::atomic<bool> stop = false;
    setLogLevel(0);
    std::jthread caller([&] {
        const ApplicationCall lasting;  // so that no interruption between two calls makes the thread ask
        while (!stop)
            refusedCall();
    });
    const auto isWritten = [&](bool wanted) {
        for (const ULONGLONG end = GetTickCount64() + 20000; GetTickCount64() < end;) {
            log.mark();
            Sleep(50);  // several ticks
            if (log.raw().empty() != wanted)
                return true;
        }
        return false;
    };
    for (int round = 0; round < 3; ++round) {
        setLogLevel(2);
        EXPECT_TRUE(isWritten(true));
        setLogLevel(0);
        EXPECT_TRUE(isWritten(false));
    }
    stop = true;
}

// The open key goes on answering under its new name.
TEST_F(LogLevelTest, AKeyThatWasRenamedIsFoundAgainByItsPath) {
    refusedCall();
    HKEY parent = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Quorvel", 0, KEY_ALL_ACCESS, &parent), ERROR_SUCCESS);
    ASSERT_EQ(RegRenameKey(parent, L"Talvik", L"Elsewhere"), ERROR_SUCCESS);
    setLogLevel(0);
    const ULONGLONG end = GetTickCount64() + 20000;
    do {
        log.mark();
        refusedCall();
    } while (!log.raw().empty() && GetTickCount64() < end);
    EXPECT_EQ(log.raw(), "");
    RegDeleteKeyA(parent, "Elsewhere");
    RegCloseKey(parent);
}

}  // namespace
