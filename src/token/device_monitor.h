// A thread that asks once a second which tokens are attached and forgets what is known of the others.
#pragma once

namespace talvik {

// Starts the thread unless it runs already. Throws when the system has no thread to give; the next start tries again.
void startDeviceMonitor();

// Asks the thread to stop and waits for it, up to about a second. Harmless when none runs. Runs by itself when the
// module is unloaded in a living process.
void stopDeviceMonitor();

}  // namespace talvik
