#include <windows.h>

#include <wincrypt.h>

#include "log/log.h"

extern "C" SECURITY_STATUS WINAPI GetKeyStorageInterface(const wchar_t*, void**, DWORD) {
    talvik::logError("GetKeyStorageInterface: not supported");
    return NTE_NOT_SUPPORTED;
}
