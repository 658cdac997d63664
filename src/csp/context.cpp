#include "csp/context.h"

#include <memory>
#include <new>

#include "csp/entry_points.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/device_library.h"
#include "token/device_monitor.h"
#include "token/handle.h"
#include "token/key_pair_list.h"
#include "token/session.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

constexpr DWORD verifyOnlyFlags = 0xF0000000;  // any of them, not CRYPT_VERIFYCONTEXT alone

Outcome openContext(std::unique_ptr<CspContext> context, HCRYPTPROV* phProv) {
    context->keysetType = CRYPT_USER_KEYSET;
    context->valid = 1;
    handOver(std::move(context), phProv);
    return success();
}

std::string requestedName(LPCSTR pszContainer) {
    if (pszContainer == nullptr) {
        logDebug("CPAcquireContext - Container name not provided");
        return {};
    }
    logDebug("CPAcquireContext - Container name : ", pszContainer);
    return pszContainer;
}

void listContainers(CspContext& context) {
    const KeyPairList keys(context.deviceId, context.reserved);
    if (keys.empty()) {
        logDebug("Acquire Context :: Key List is empty");
    }
    context.containerNames.reserve(keys.size());
    for (const TalvikKeyPair& key : keys) {
        context.containerNames.push_back(containerNameOf(key));
        logDebug(context.containerNames.back());
    }
}

std::string withoutAlias(const std::string& name) {
    std::optional<std::string> target = findContainerAlias(name);
    if (!target) {
        return name;
    }
    logDebug("CPAcquireContext - resolved container ", name, " -> ", *target);
    return *std::move(target);
}

Outcome acquireTokenContext(std::unique_ptr<CspContext> context, LPCSTR pszContainer, HCRYPTPROV* phProv) {
    talvik_init(0, nullptr, 2);
    startDeviceMonitor();
    const std::vector<std::string> devices = talvik_getConnectedDeviceList(false, context->reserved);
    if (devices.empty()) {
        return fail(NTE_TOKEN_KEYSET_STORAGE_FULL, "Valid token not connected");
    }
    initializeDevices(devices, "Init device failed for ", context->reserved);

    const std::string name = requestedName(pszContainer);
    context->deviceId = resolveDeviceForContainer(name);
    if (context->deviceId.empty()) {
        return fail(NTE_TOKEN_KEYSET_STORAGE_FULL, "No initialized device found");
    }
    listContainers(*context);
    context->containerName = withoutAlias(name);
    return openContext(std::move(context), phProv);
}

Outcome acquire(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags, VTableProvStruc* pVTable) {
    logDebug("CPAcquireContext");
    if (phProv == nullptr || pVTable == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPAcquireContext: invalid parameter - phProv=", addressNumber(phProv),
                    " pVTable=", addressNumber(pVTable));
    }
    logDebug("CPAcquireContext - dwFlags : ", dwFlags);
    if ((dwFlags & CRYPT_DELETEKEYSET) != 0) {
        logDebug("CPAcquireContext - CRYPT_DELETEKEYSET, returning success");
        *phProv = 0;
        return success();
    }
    std::unique_ptr<CspContext> context(new (std::nothrow) CspContext);
    if (context == nullptr) {
        return fail(NTE_NO_MEMORY, "CPAcquireContext: failed to allocate CSP context");
    }
    if ((dwFlags & verifyOnlyFlags) != 0) {
        logDebug("CPAcquireContext - CRYPT_VERIFYCONTEXT, no token required");
        return openContext(std::move(context), phProv);
    }
    return acquireTokenContext(std::move(context), pszContainer, phProv);
}

Outcome release(HCRYPTPROV hProv, DWORD dwFlags) {
    logDebug("CPReleaseContext");
    if (dwFlags != 0) {
        return fail(NTE_BAD_FLAGS, "CPReleaseContext: invalid dwFlags=0x", HexWord{dwFlags});
    }
    const std::unique_ptr<CspContext> context(contextOf(hProv));
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPReleaseContext: invalid or uninitialized context");
    }
    return success();
}

}  // namespace
}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, LPCSTR pszContainer, DWORD dwFlags, VTableProvStruc* pVTable) {
    return entryPoint("CPAcquireContext", [=] { return talvik::csp::acquire(phProv, pszContainer, dwFlags, pVTable); });
}

BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    return entryPoint("CPReleaseContext", [=] { return talvik::csp::release(hProv, dwFlags); });
}
