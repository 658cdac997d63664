#include "module.h"

#include <atomic>

namespace talvik {
namespace {

HINSTANCE instanceHandle = nullptr;

}  // namespace

void recordModuleInstance(HINSTANCE instance) noexcept {
    instanceHandle = instance;
}

HINSTANCE moduleInstance() noexcept {
    return instanceHandle;
}

void pinModule() noexcept {
    static std::atomic<bool> pinned{false};
    if (pinned.exchange(true)) {
        return;
    }
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const char*>(&pinModule), &module);
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
    }
    return TRUE;
}
