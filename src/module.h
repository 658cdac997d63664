// The loaded module itself. Once loaded it stays until the process ends.
#pragma once

#include <windows.h>

// The name that both faces are found by.
#define TALVIK_PROVIDER_NAME "Talvik Cryptographic Provider CSP"

namespace talvik {

inline constexpr char PROVIDER_NAME[] = TALVIK_PROVIDER_NAME;
inline constexpr wchar_t WIDE_PROVIDER_NAME[] = L"" TALVIK_PROVIDER_NAME;

// Set once by the module entry; the PIN dialog's resource is loaded from this module.
void recordModuleInstance(HINSTANCE instance) noexcept;
HINSTANCE moduleInstance() noexcept;

// True once the process is ending: its other threads are gone, and whatever lock they held stays held.
bool processIsEnding() noexcept;

}  // namespace talvik
