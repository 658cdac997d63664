// The loaded module itself. Once loaded it stays until the process ends.
#pragma once

#include <windows.h>

namespace talvik {

// Set once by the module entry; the PIN dialog's resource is loaded from this module.
void recordModuleInstance(HINSTANCE instance) noexcept;
HINSTANCE moduleInstance() noexcept;

// True once the process is ending: its other threads are gone, and whatever lock they held stays held.
bool processIsEnding() noexcept;

}  // namespace talvik
