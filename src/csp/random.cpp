// CPGenRandom, and the two entry points that this provider refuses.
#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/outcome.h"
#include "csp/pieces.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/shared_state.h"

namespace talvik::csp {
namespace {

Outcome generateRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPGenRandom: context is null or not initialized");
    }
    if (pbBuffer == nullptr || dwLen == 0) {
        return fail(ERROR_INVALID_PARAMETER, "CPGenRandom: invalid buffer or length, cbLen=", dwLen);
    }
    const bool hasToken = !context->deviceId.empty();
    if (!hasToken) {
        logDebug("CPGenRandom: no token, using software RNG");
    }
    const bool useSoftware = !hasToken || useHardwareRng == 0;
    const int status = inPieces(pbBuffer, dwLen, [=](BYTE* buffer, int size) {
        return talvik_generateRamdomNumber(context->deviceId.c_str(), size, buffer, useSoftware, context->reserved);
    });
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_PROVIDER_DLL_FAIL,
                    hasToken ? "Random number generation failed: " : "CPGenRandom: software RNG failed: ", status);
    }
    return success();
}

Outcome deriveKey() {
    logDebug("CPDeriveKey");
    return fail(NTE_NOT_SUPPORTED, "CPDeriveKey: not supported");
}

Outcome hashSessionKey(HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags) {
    logDebug("CPHashSessionKey");
    return fail(ERROR_CALL_NOT_IMPLEMENTED, "CPHashSessionKey: not supported, hHash=", hHash, " hKey=", hKey,
                " dwFlags=", dwFlags);
}

}  // namespace
}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
    return entryPoint("CPGenRandom", [=] { return talvik::csp::generateRandom(hProv, dwLen, pbBuffer); });
}

BOOL WINAPI CPDeriveKey(HCRYPTPROV, ALG_ID, HCRYPTHASH, DWORD, HCRYPTKEY*) {
    return entryPoint("CPDeriveKey", [] { return talvik::csp::deriveKey(); });
}

BOOL WINAPI CPHashSessionKey(HCRYPTPROV, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags) {
    return entryPoint("CPHashSessionKey", [=] { return talvik::csp::hashSessionKey(hHash, hKey, dwFlags); });
}
