#include "csp/key.h"

#include <memory>
#include <new>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/algorithms.h"
#include "token/handle.h"
#include "token/key_pair_list.h"
#include "token/pin_login.h"
#include "token/session.h"
#include "token/shared_state.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

// What CPGenKey makes of its Algid.
struct KeyRequest {
    ALG_ID algId;
    std::uint32_t usage;
    std::uint32_t defaultBits;  // 0: the caller must give a size
    const char* text;
};

// The slip in "key exhange" is what support staff search the log for.
constexpr KeyRequest keyRequests[] = {
    {CALG_RSA_SIGN, TALVIK_USAGE_SIGN, defaultRsaSize.bits, "rsa sign"},
    {AT_SIGNATURE, TALVIK_USAGE_SIGN, 0, "rsa sign"},
    {CALG_RSA_KEYX, TALVIK_USAGE_EXCHANGE, defaultRsaSize.bits, "key exhange"},
    {AT_KEYEXCHANGE, TALVIK_USAGE_EXCHANGE, 0, "key exhange"},
};

// Usage included; what else the handle says stays.
void describeTokenKey(KEY_HANDLE& key, const TalvikKeyPair& record) {
    describeKeyPair(key, lengthsOf(key), record);
    key.keyUsage = record.usage;
}

// The name that the application knows the container by now stands for the new key, and the context names that key.
void renameContainer(CspContext& context, const KEY_HANDLE& key) {
    const std::string keyName = hexNameOf(key);
    if (!context.containerName.empty()) {
        insertContainerAlias(context.containerName, keyName);
    }
    context.containerName = keyName;
}

Outcome generate(HCRYPTPROV hProv, ALG_ID algId, DWORD dwFlags, HCRYPTKEY* phKey) {
    logDebug("CPGenKey");
    if (phKey == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGenKey: phKey is NULL");
    }
    *phKey = 0;
    CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "Invalid CSP context");
    }
    const KeyRequest* const request = findRow(keyRequests, &KeyRequest::algId, algId);
    if (request == nullptr) {
        return fail(NTE_BAD_ALGID, "Unsupported algorithm", algId);
    }
    logDebug(request->text);
    const DWORD requestedBits = dwFlags >> 16;
    const DWORD bits = requestedBits != 0 ? requestedBits : request->defaultBits;
    if (bits == 0) {
        return fail(NTE_BAD_LEN, "Unsupported Length", algId);
    }
    std::unique_ptr<KEY_HANDLE> key(new (std::nothrow) KEY_HANDLE);
    if (key == nullptr) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, "CPGenKey: failed to allocate KEY_HANDLE");
    }
    if (!ensurePasswordValidated(context->deviceId, context->reserved)) {
        return failAsSet("CPGenKey: ensurePasswordValidated failed");
    }
    key->algId = algId;
    key->keyBits = bits;

    // The size stays here: the token makes its default key.
    TalvikKeyPair record = {};
    record.usage = request->usage;
    const int status = talvik_generateKeyPair(context->deviceId.c_str(), getDevicePassword(context->deviceId).c_str(),
                                              &record, context->reserved);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_TOKEN_KEYSET_STORAGE_FULL, "RSA Keypair Generation Failed, code=", status);
    }
    describeTokenKey(*key, record);
    renameContainer(*context, *key);
    handOver(std::move(key), phKey);
    logDebug("Key generated successfully, Algid=", algId, " bits=", bits);
    return success();
}

// What the key is taken as, 0 when it does not serve `keySpec`. Once an application has asked for the container, the
// first key that can sign serves every request.
std::uint32_t algIdFor(const TalvikKeyPair& record, DWORD keySpec) {
    if ((keySpec == AT_SIGNATURE || containerQueried) && canSign(record)) {
        logDebug("Sign key found");
        return findCurve(record.keyType) != nullptr ? CALG_DSS_SIGN : CALG_RSA_SIGN;
    }
    if ((keySpec == AT_KEYEXCHANGE || containerQueried) && canExchange(record)) {
        logDebug("Encryption key found");
        return CALG_RSA_KEYX;
    }
    return 0;
}

void takeUserKey(KEY_HANDLE& key, const KeyPairList& records, const std::string& containerName, DWORD keySpec) {
    for (const TalvikKeyPair& record : records) {
        if (!containerName.empty() && !hasContainerName(record, containerName)) {
            continue;
        }
        if (const std::uint32_t algId = algIdFor(record, keySpec); algId != 0) {
            describeTokenKey(key, record);
            key.algId = algId;
            key.keyBits = keyBitsOfType(record.keyType);
            key.storageFlag = record.storageFlag;
            return;
        }
    }
}

Outcome getUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    logDebug("CPGetUserKey");
    if (phUserKey == nullptr || hProv == 0) {
        return fail(NTE_BAD_KEY, "CPGetUserKey: phUserKey or hProv is null");
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPGetUserKey: context is not initialized");
    }
    logDebug("CPGetUserKey -> dwKeySpec : ", dwKeySpec);
    const KeyPairList records(context->deviceId, context->reserved);
    if (records.empty()) {
        return fail(NTE_NO_KEY, "CPGetUserKey: key list is empty");
    }
    auto key = std::make_unique<KEY_HANDLE>();
    logDebug("CPGetUserKey - Container name : ", context->containerName);
    takeUserKey(*key, records, context->containerName, dwKeySpec);
    if (key->keyIdLen == 0) {
        return fail(NTE_BAD_KEY, "CPGetUserKey: requested key not found, dwKeySpec=", dwKeySpec);
    }
    logDebug("CPGetUserKey - return key algorithm : ", key->algId);
    handOver(std::move(key), phUserKey);
    return success();
}

Outcome destroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    logDebug("CPDestroyKey");
    if (contextOf(hProv) == nullptr) {
        return fail(NTE_BAD_UID, "CPDestroyKey: invalid or uninitialized context");
    }
    if (hKey == 0) {
        return fail(NTE_BAD_KEY, "CPDestroyKey: pKeyHandle is NULL");
    }
    delete keyOf(hKey);
    return success();
}

}  // namespace

}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey) {
    return entryPoint("CPGenKey", [=] { return talvik::csp::generate(hProv, Algid, dwFlags, phKey); });
}

BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey) {
    return entryPoint("CPGetUserKey", [=] { return talvik::csp::getUserKey(hProv, dwKeySpec, phUserKey); });
}

BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey) {
    return entryPoint("CPDestroyKey", [=] { return talvik::csp::destroyKey(hProv, hKey); });
}
