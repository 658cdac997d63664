#include "module.h"

namespace talvik {
namespace {

HINSTANCE instanceHandle = nullptr;

// Keeps the module loaded until the process ends. The system frees a CryptoAPI provider with an application's last
// context, and after an acquisition that failed; but validated PINs outlive the contexts, the monitor thread must not
// lose its code and cannot be joined inside the unload notification, and the thread library that is linked in takes a
// thread-local slot at each load that it never gives back.
void pin(HINSTANCE instance) noexcept {
    HMODULE pinned = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(instance), &pinned);
}

}  // namespace

void recordModuleInstance(HINSTANCE instance) noexcept {
    instanceHandle = instance;
}

HINSTANCE moduleInstance() noexcept {
    return instanceHandle;
}

bool processIsEnding() noexcept {
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    static const auto inProgress = reinterpret_cast<ShutdownInProgress>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlDllShutdownInProgress")));
    return inProgress != nullptr && inProgress() != FALSE;
}

}  // namespace talvik

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH) {
        talvik::recordModuleInstance(instance);
        talvik::pin(instance);
    }
    return TRUE;
}
