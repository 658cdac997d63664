// The loaded module itself: its instance handle, and what keeps it loaded.
#pragma once

#include <windows.h>

namespace talvik {

// Set once by the module entry; the PIN dialog's resource is loaded from this module.
void recordModuleInstance(HINSTANCE instance) noexcept;
HINSTANCE moduleInstance() noexcept;

// Keeps the module loaded until the process ends. The system frees a CryptoAPI provider with the application's last
// context, but the validated PINs must outlive it and the monitor thread must not lose its code: a thread cannot be
// joined inside the unload notification, since it needs the loader's lock to end.
void pinModule() noexcept;

// True once the process is ending: its other threads are gone, and whatever lock they held stays held.
bool processIsEnding() noexcept;

}  // namespace talvik
