#include "token/device_monitor.h"

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "log/utils.h"
#include "module.h"
#include "token/device_library.h"
#include "token/session.h"

namespace talvik {
namespace {

constexpr unsigned int pollMilliseconds = 1000;

std::atomic<unsigned char> running{0};
std::atomic<unsigned char> stopRequested{0};

// Never destroyed: at the end of the process the thread is gone, but its object is still joinable.
std::thread& monitorThread() {
    static std::thread& instance = *new std::thread;
    return instance;
}

// A look that fails, for want of memory or inside the library, is left out: the next one comes in a second.
void forgetUnpluggedDevices() noexcept {
    try {
        const std::vector<std::string> attached = talvik_getConnectedDeviceList(false, nullptr);
        forgetDevicesExcept(std::set<std::string>(attached.begin(), attached.end()));
    } catch (...) {
        return;
    }
}

void monitorDevices() {
    logDebug("Device monitor thread started.");
    running = 1;
    while (stopRequested == 0) {
        forgetUnpluggedDevices();
        Utils().sleepMilliseconds(pollMilliseconds);
    }
    logDebug("Device monitor thread stopped.");
    running = 0;
}

struct StopAtUnload {
    ~StopAtUnload() {
        if (!processIsEnding()) {
            stopDeviceMonitor();
        }
    }
};
const StopAtUnload stopAtUnload;

}  // namespace

void startDeviceMonitor() {
    unsigned char stopped = 0;
    if (!running.compare_exchange_strong(stopped, 1)) {
        logDebug("Monitor thread already running, not starting again.");
        return;
    }
    stopRequested = 0;
    try {
        monitorThread() = std::thread(monitorDevices);
    } catch (...) {
        running = 0;
        throw;
    }
    logDebug("Monitor thread started (startDeviceMonitor).");
}

void stopDeviceMonitor() {
    stopRequested = 1;
    std::thread& thread = monitorThread();
    if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) {
        thread.join();
        logDebug("Monitor thread joined (stopDeviceMonitor).");
    }
    running = 0;
}

}  // namespace talvik
