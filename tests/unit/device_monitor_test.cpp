#include "token/device_monitor.h"

#include <cerrno>
#include <new>
#include <pthread.h>

#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;
using namespace std::chrono_literals;

namespace {

bool threadsAreOut = false;

}  // namespace

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*), void* argument) {
    return threadsAreOut ? EAGAIN : __real_pthread_create(thread, how, body, argument);
}
}

namespace {

// The poll after this call sees the tokens as they are now, and the one after that has erased what is gone.
void waitForTwoPolls() {
    ASSERT_TRUE(scripted::waitForPolls(2, 10s)) << "the monitor does not poll";
}

class DeviceMonitor : public ProviderTest {
  protected:
    // A poll that began earlier, over other tokens, has had its effect once the next one has its answer.
    static void letOldPollsPass() { ASSERT_TRUE(scripted::waitForPolls(1, 10s)); }
};

TEST_F(DeviceMonitor, AnUnpluggedTokenIsForgotten) {
    attachTokens({scripted::keyPair(1)});
    letOldPollsPass();
    acquire();
    setDevicePassword("T1", "1234");
    setDevicePassword("T2", "5678");
    waitForTwoPolls();
    EXPECT_TRUE(isDeviceInitialized("T1"));
    log.mark();
    scripted::attach({{"T2", {}}});
    waitForTwoPolls();
    EXPECT_THAT(log.allEntries(), ElementsAre("DEBUG Device disconnected: T1"));
    EXPECT_FALSE(isDeviceInitialized("T1"));
    EXPECT_FALSE(isPasswordValidated("T1"));
    EXPECT_STREQ(getDevicePassword("T2").c_str(), "5678");

    attachTokens({});
    letOldPollsPass();
    acquire();
    EXPECT_TRUE(isDeviceInitialized("T1"));
}

TEST_F(DeviceMonitor, APollThatFailsIsSkipped) {
    static std::atomic<int> failures;
    failures = 0;
    scripted::before("poll", [] {
        if (failures++ == 0)
            throw std::bad_alloc();
    });
    setDevicePassword("gone", "1234");
    waitForTwoPolls();
    EXPECT_GT(failures, 1);
    EXPECT_FALSE(isPasswordValidated("gone"));
}

// And only one: the next finds a thread.
TEST_F(DeviceMonitor, WithoutAThreadOneAcquisitionFails) {
    stopDeviceMonitor();
    threadsAreOut = true;
    HCRYPTPROV context = UNTOUCHED;
    EXPECT_FALSE(CPAcquireContext(&context, nullptr, 0, someTable()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
    EXPECT_EQ(log.take().back(), "ERROR CPAcquireContext: unexpected failure");
    EXPECT_EQ(context, UNTOUCHED);
    threadsAreOut = false;
    acquire();
    waitForTwoPolls();
}

TEST_F(DeviceMonitor, OneThreadServesAllUntilItIsStopped) {
    log.mark();
    startDeviceMonitor();
    EXPECT_EQ(log.allEntries(), Lines({"DEBUG Monitor thread already running, not starting again."}));

    log.mark();
    stopDeviceMonitor();
    EXPECT_EQ(log.allEntries(),
              Lines({"DEBUG Device monitor thread stopped.", "DEBUG Monitor thread joined (stopDeviceMonitor)."}));
    const int polls = scripted::pollCount();
    log.mark();
    stopDeviceMonitor();
    EXPECT_THAT(log.allEntries(), IsEmpty());
    setDevicePassword("gone", "1234");
    EXPECT_FALSE(scripted::waitForPolls(1, 1500ms));
    EXPECT_EQ(scripted::pollCount(), polls);
    EXPECT_TRUE(isPasswordValidated("gone"));

    log.mark();
    startDeviceMonitor();
    waitForTwoPolls();
    EXPECT_FALSE(isPasswordValidated("gone"));
    EXPECT_THAT(log.allEntries(), UnorderedElementsAre("DEBUG Device monitor thread started.",
                                                       "DEBUG Monitor thread started (startDeviceMonitor).",
                                                       "DEBUG Device disconnected: gone"));
}

}  // namespace
