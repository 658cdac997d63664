// CPGetProvParam and CPSetProvParam.
#include "csp/provider_params.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "csp/entry_points.h"
#include "log/log.h"
#include "module.h"
#include "token/key_pair_list.h"
#include "token/pin_login.h"
#include "token/shared_state.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

constexpr DWORD hardwareAndRemovable = CRYPT_IMPL_HARDWARE | CRYPT_IMPL_REMOVABLE;
constexpr DWORD providerVersion = 0x100;

Outcome refuseMissingSize() {
    return fail(ERROR_INVALID_PARAMETER, "CPGetProvParam: pcbDataLen is null");
}

// How the simple parameters end: a missing or short buffer is no error, the value is just not written.
Outcome reportLength(std::size_t length, Output out) {
    if (out.size == nullptr) {
        return refuseMissingSize();
    }
    *out.size = static_cast<DWORD>(length);
    logDebug("CPGetProvParam out length : ", length);
    logDebug("CPGetProvParam return success");
    return success();
}

Outcome simpleWord(DWORD value, Output out) {
    if (out.hasRoomFor(sizeof value)) {
        std::memcpy(out.buffer, &value, sizeof value);
    }
    return reportLength(sizeof value, out);
}

Outcome implementationType(Output out) {
    if (out.hasRoomFor(sizeof hardwareAndRemovable)) {
        logDebug("CPGetProvParam not null value provided");
    }
    return simpleWord(hardwareAndRemovable, out);
}

// Reports its length without the NUL after a copy, but with it as the needed size.
Outcome name(Output out) {
    constexpr std::size_t needed = sizeof PROVIDER_NAME;
    if (!out.hasRoomFor(needed)) {
        return reportLength(needed, out);
    }
    std::memcpy(out.buffer, PROVIDER_NAME, needed);
    return reportLength(needed - 1, out);
}

Outcome container(const CspContext& context, Output out) {
    containerQueried = true;
    logDebug("CPGetProvParam - copying container");
    const std::size_t needed = context.containerName.size() + 1;
    if (out.hasRoomFor(needed)) {
        std::memcpy(out.buffer, context.containerName.c_str(), needed);
    }
    return reportLength(needed, out);
}

// The 32-bit answers that tell a missing or short buffer with ERROR_MORE_DATA.
template <class... Parts>
Outcome word(DWORD value, Output out, const Parts&... written) {
    if (!out.hasRoomFor(sizeof value)) {
        return moreData(sizeof value, out);
    }
    if constexpr (sizeof...(written) > 0) {
        logDebug(written..., value);
    }
    return answer(bytesOf(value), out);
}

Outcome pinQuery(Output out) {
    logDebug("CPGetProvParam: PIN query");
    return word(1, out);
}

Outcome hardwareRng(Output out) {
    if (!out.hasRoomFor(sizeof(DWORD))) {
        logDebug("Required size is Large");
    }
    return word(useHardwareRng, out, "CPGetProvParam: PP_USE_HARDWARE_RNG = ");
}

Outcome keySpec(const CspContext& context, Output out) {
    if (context.containerName.empty() || context.deviceId.empty()) {
        logDebug("CPGetProvParam PP_KEYSPEC: no container, returning supported specs");
        return word(AT_KEYEXCHANGE | AT_SIGNATURE, out);
    }
    const KeyPairList keys(context.deviceId, context.reserved);
    const auto key = std::ranges::find_if(
        keys, [&](const TalvikKeyPair& candidate) { return hasContainerName(candidate, context.containerName); });
    if (key == keys.end()) {
        return fail(NTE_NO_KEY, "CPGetProvParam PP_KEYSPEC: key not found for container=", context.containerName);
    }
    return word(canSign(*key) ? AT_SIGNATURE : canExchange(*key) ? AT_KEYEXCHANGE : 0, out);
}

// Everyone has access: what protects a key is the token's PIN.
Outcome securityDescriptor(Output out) {
    logDebug("CPGetProvParam: PP_KEYSET_SEC_DESCR");
    SECURITY_DESCRIPTOR descriptor = {};
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    DWORD needed = 0;
    MakeSelfRelativeSD(&descriptor, nullptr, &needed);
    if (!out.hasRoomFor(needed)) {
        return moreData(needed, out);
    }
    if (MakeSelfRelativeSD(&descriptor, out.buffer, &needed) == FALSE) {
        return fail(NTE_FAIL, "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed");
    }
    *out.size = needed;
    return success();
}

Outcome getByParameter(CspContext& context, DWORD dwParam, Output out, DWORD dwFlags) {
    switch (dwParam) {
        case PP_ENUMALGS:
            return enumerateAlgorithms(context, out, dwFlags);
        case PP_ENUMCONTAINERS:
            return enumerateContainers(context, out, dwFlags);
        case PP_IMPTYPE:
            return implementationType(out);
        case PP_NAME:
            return name(out);
        case PP_VERSION:
            return simpleWord(providerVersion, out);
        case PP_CONTAINER:
        case PP_UNIQUE_CONTAINER:
            return container(context, out);
        case PP_KEYSET_SEC_DESCR:
            return securityDescriptor(out);
        case PP_CERTCHAIN:
            return getCertificateChain(context, out);
        case PP_PROVTYPE:
            return simpleWord(PROV_RSA_FULL, out);
        case PP_KEYSTORAGE:
            return word(hardwareAndRemovable, out);
        case PP_ENUMALGS_EX:
            return enumerateAlgorithmsEx(context, out, dwFlags);
        case PP_KEYSET_TYPE:
            return simpleWord(context.keysetType, out);
        case PP_ADMIN_PIN:
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            return pinQuery(out);
        case PP_USE_HARDWARE_RNG:
            return hardwareRng(out);
        case PP_KEYSPEC:
            return keySpec(context, out);
        case PP_ENUMEX_SIGNING_PROT:
            return word(1, out, "CPGetProvParam: PP_ENUMEX_SIGNING_PROT = ");
        default:
            return fail(NTE_BAD_TYPE, "CPGetProvParam: unsupported dwParam=", dwParam);
    }
}

Outcome getParam(HCRYPTPROV hProv, DWORD dwParam, Output out, DWORD dwFlags) {
    CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPGetProvParam: context is null or not initialized");
    }
    logDebug("CPGetProvParam");
    logDebug("CPGetProvParam input : ", dwParam);
    logDebug("CPGetProvParam : ", dwParam);
    return getByParameter(*context, dwParam, out, dwFlags);
}

Outcome setPin(const CspContext& context, const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL PIN data");
    }
    const auto* const pin = reinterpret_cast<const char*>(pbData);
    logDebug("CPSetProvParam - passwordLength : ", std::strlen(pin));
    const int status = validatePin(context.deviceId, pin, context.reserved).status;
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_KEYSET_ENTRY_BAD, "CPSetProvParam - Token password validation failed : ", status);
    }
    return success();
}

Outcome setHardwareRng(const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
    }
    DWORD value = 0;
    std::memcpy(&value, pbData, sizeof value);
    useHardwareRng = value != 0 ? 1 : 0;
    logDebug("CPSetProvParam: PP_USE_HARDWARE_RNG set to ", value != 0 ? 1 : 0);
    return success();
}

Outcome setParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData) {
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPSetProvParam: context is null or not initialized");
    }
    logDebug("CPSetProvParam");
    logDebug("CPSetProvParam - input param : ", dwParam);
    switch (dwParam) {
        case PP_CLIENT_HWND:
            return success();  // no dialog of this face has an owner
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            return setPin(*context, pbData);
        case PP_USE_HARDWARE_RNG:
            return setHardwareRng(pbData);
        default:
            return fail(NTE_BAD_TYPE, "CPSetProvParam: unsupported dwParam=", dwParam);
    }
}

}  // namespace

Outcome moreData(std::size_t needed, Output out) {
    if (out.size == nullptr) {
        return refuseMissingSize();
    }
    *out.size = static_cast<DWORD>(needed);
    return successLeaving(ERROR_MORE_DATA);
}

}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen, DWORD dwFlags) {
    return entryPoint("CPGetProvParam", [=] {
        return talvik::csp::getParam(hProv, dwParam, {pbData, pcbDataLen}, dwFlags);
    });
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD) {
    return entryPoint("CPSetProvParam", [=] { return talvik::csp::setParam(hProv, dwParam, pbData); });
}
