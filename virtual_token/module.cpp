// The module's entry.
#include <windows.h>

// Once loaded, the library stays until the process ends: the thread and error libraries that are linked into it take a
// thread-local slot of the process at each load and never give it back, and there are about a thousand.
extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH) {
        HMODULE pinned = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<const wchar_t*>(module), &pinned);
    }
    return TRUE;
}
