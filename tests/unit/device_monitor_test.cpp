#include "token/device_monitor.h"

#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;
using namespace std::chrono_literals;

namespace {

// The poll after this call sees the tokens as they are now, and the one after that has erased what is gone.
void waitForTwoPolls() {
    ASSERT_TRUE(scripted::waitForPolls(2, 10s)) << "the monitor does not poll";
}

class DeviceMonitor : public ProviderTest {};

TEST_F(DeviceMonitor, AnUnpluggedTokenIsForgotten) {
    attachTokens({scripted::keyPair(1)});
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
    acquire();
    EXPECT_TRUE(isDeviceInitialized("T1"));
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
