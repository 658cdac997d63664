#include "ksp/key.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ksp/algorithms.h"
#include "ksp/entry_points.h"
#include "ksp/provider.h"
#include "log/log.h"
#include "token/session.h"

namespace talvik::ksp {
namespace {

// Identifier, public key, alias, label and flag of a key pair on the token; what else the key says stays.
void describeTokenKey(KspKey& key, const TalvikKeyPair& record) {
    const ByteView alias = talvik::aliasOf(record);
    const std::string_view label = labelOf(record);
    std::memcpy(key.keyId, record.keyId, sizeof key.keyId);
    key.keyIdLength = sizeof key.keyId;
    setPublicKey(key, talvik::publicKeyOf(record));
    std::copy(alias.begin(), alias.end(), key.keyAlias);
    key.keyAliasLength = static_cast<std::uint32_t>(alias.size());
    label.copy(key.label, sizeof key.label);
    key.storageFlag = record.storageFlag;
    key.isFinalized = 1;
}

// The token that holds the key named so, from now on the provider's; nothing where a name leads to none.
std::shared_ptr<const BoundToken> bindToKey(KspProvider& provider, const std::wstring& name) {
    const std::string deviceId = name.empty() ? std::string() : resolveDeviceForKeyName(name);
    if (deviceId.empty()) {
        return nullptr;
    }
    logDebug("KSP: Resolved key to device: ", deviceId);
    return provider.bindTo(deviceId);
}

// Whether a key's hex name is `name`; the walk up to it goes to the log.
bool listsKeyNamed(const std::vector<TalvikKeyPair>& records, std::string_view name) {
    return std::any_of(records.begin(), records.end(), [=](const TalvikKeyPair& record) {
        logDebug("KSP: Available key: ", HexBytes{record.keyId, sizeof record.keyId});
        return hasContainerName(record, name);
    });
}

SECURITY_STATUS openKey(KspProvider& provider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName) {
    if (phKey == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPOpenKey: phKey is null");
    }
    const std::wstring keyName = pszKeyName != nullptr ? pszKeyName : L"";
    const std::string name = narrowed(keyName);
    std::shared_ptr<const BoundToken> token = provider.token();
    logDebug("KSP: Opening key: ", name);
    if (auto bound = bindToKey(provider, keyName)) {
        token = std::move(bound);
    }
    const std::vector<TalvikKeyPair> records = talvik_getKeyPairList(token->deviceId.c_str(), token->libraryContext);
    if (records.empty()) {
        return fail(NTE_NO_KEY, "KSP: No keys found on token");
    }
    if (!listsKeyNamed(records, name)) {
        return fail(NTE_NO_KEY, "KSP: Input key not found on token: ", name);
    }
    logDebug("KSP: Key match found, proceeding...");
    // A key before the listed one may bear this name as its label; one of the two is always there.
    const TalvikKeyPair& record = *std::find_if(records.begin(), records.end(), [&](const TalvikKeyPair& candidate) {
        return hasContainerName(candidate, name) || labelOf(candidate) == name;
    });
    auto key = std::make_unique<KspKey>();
    describeTokenKey(*key, record);
    key->algorithm = record.keyType;
    key->keyUsage = record.usage;
    key->keyLength = keyBitsOfType(record.keyType);
    key->keyName = keyName;
    logDebug("KSP: Key opened, algorithm=", key->algorithm, " bits=", key->keyLength);
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return ERROR_SUCCESS;
}

SECURITY_STATUS createPersistedKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId, LPCWSTR pszKeyName,
                                   DWORD dwLegacyKeySpec) {
    if (phKey == nullptr || pszAlgId == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPCreatePersistedKey: phKey or pszAlgId is null");
    }
    const std::wstring_view name = pszAlgId;
    const auto* const algorithm =
        std::find_if(std::begin(keyPairAlgorithms), std::end(keyPairAlgorithms),
                     [=](const KeyPairAlgorithm& candidate) { return candidate.name == name; });
    if (algorithm == std::end(keyPairAlgorithms)) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported algorithm for key generation");
    }
    auto key = std::make_unique<KspKey>();
    const bool isRsa = !isEllipticCurveType(algorithm->keyType);
    key->algorithm = algorithm->keyType;
    key->keyLength = keyBitsOfType(algorithm->keyType);
    key->keyUsage = isRsa && dwLegacyKeySpec == AT_KEYEXCHANGE ? TALVIK_USAGE_EXCHANGE : TALVIK_USAGE_SIGN;
    key->keyName = pszKeyName != nullptr ? pszKeyName : L"";
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    logDebug("KSP: Key object created, waiting for FinalizeKey");
    return ERROR_SUCCESS;
}

// A size that the token does not know makes its default key, but the key goes on saying what was asked for.
void chooseRsaSize(KspKey& key) {
    key.algorithm = rsaSizeOrDefault(key.keyLength).keyType;
    if (key.keyLength == 0) {
        key.keyLength = defaultRsaSize.bits;
    }
}

SECURITY_STATUS finalizeKey(const BoundToken& token, KspKey* key, DWORD dwFlags) {
    if (key == nullptr) {
        return fail(NTE_INVALID_HANDLE, "KSPFinalizeKey: key handle is null");
    }
    if (key->isFinalized != 0) {
        return ERROR_SUCCESS;
    }
    if (const SECURITY_STATUS refusal = requirePin("KSPFinalizeKey", token, dwFlags); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    if (key->algorithm == 0) {
        chooseRsaSize(*key);
    }
    TalvikKeyPair record = {};
    record.usage = key->keyUsage;
    record.keyType = key->algorithm;
    logDebug("KSP: FinalizeKey - generating key, algorithm=", key->algorithm, " bitSize=", key->keyLength);
    const int status = talvik_generateKeyPair(token.deviceId.c_str(), getDevicePassword(token.deviceId).c_str(),
                                              &record, token.libraryContext);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Key generation failed: ", status);
    }
    describeTokenKey(*key, record);
    logDebug("KSP: Key finalized successfully");
    return ERROR_SUCCESS;
}

SECURITY_STATUS deleteKey(const BoundToken& token, KspKey* key, DWORD dwFlags) {
    if (key == nullptr) {
        return fail(NTE_INVALID_HANDLE, "KSPDeleteKey: key handle is null");
    }
    if (const SECURITY_STATUS refusal = requirePin("KSPDeleteKey", token, dwFlags); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    const int status =
        talvik_deleteKeyPair(token.deviceId.c_str(), key->keyId, getDevicePassword(token.deviceId).c_str(),
                             key->storageFlag != 0, token.libraryContext);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Delete key failed: ", status);
    }
    key->keyName.clear();
    logDebug("KSP: Key deleted successfully");
    return ERROR_SUCCESS;
}

// One block: the header and the key pairs as the token listed them at the first call.
struct KspKeyEnumState {
    std::uint64_t nextIndex;
    std::uint64_t count;

    TalvikKeyPair* keyPairs() noexcept { return reinterpret_cast<TalvikKeyPair*>(this + 1); }
};

// Null when there is no memory for it.
KspKeyEnumState* beginEnumeration(const BoundToken& token) {
    const std::vector<TalvikKeyPair> records = talvik_getKeyPairList(token.deviceId.c_str(), token.libraryContext);
    const std::size_t size = sizeof(KspKeyEnumState) + records.size() * sizeof(TalvikKeyPair);
    auto* const state = static_cast<KspKeyEnumState*>(std::malloc(size));
    if (state != nullptr) {
        *state = {0, records.size()};
        std::copy(records.begin(), records.end(), state->keyPairs());
    }
    return state;
}

// One block: the entry and the names that it points to.
struct KeyNameEntry {
    NCryptKeyName keyName;
    wchar_t name[2 * sizeof TalvikKeyPair::keyId + 1];
    wchar_t algorithm[11];
};

DWORD legacyKeySpecOf(const TalvikKeyPair& record) {
    if (record.usage == TALVIK_USAGE_SIGN) {
        return AT_SIGNATURE;
    }
    return canExchange(record) ? AT_KEYEXCHANGE : 0;
}

SECURITY_STATUS enumKeys(const BoundToken& token, NCryptKeyName** ppKeyName, PVOID* ppEnumState) {
    if (ppKeyName == nullptr || ppEnumState == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPEnumKeys: ppKeyName or ppEnumState is null");
    }
    if (*ppEnumState == nullptr) {
        *ppEnumState = beginEnumeration(token);
        if (*ppEnumState == nullptr) {
            return fail(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate enum state");
        }
    }
    KspKeyEnumState& state = *static_cast<KspKeyEnumState*>(*ppEnumState);
    if (state.nextIndex >= state.count) {
        logDebug("KSP: No more keys to enumerate");
        return NTE_NO_MORE_ITEMS;
    }
    const TalvikKeyPair& record = state.keyPairs()[state.nextIndex];
    const std::string name = containerNameOf(record);
    auto* const entry = static_cast<KeyNameEntry*>(std::calloc(1, sizeof(KeyNameEntry)));
    if (entry == nullptr) {
        return fail(NTE_NO_MEMORY, "KSPEnumKeys: failed to allocate key name");
    }
    std::copy(name.begin(), name.end(), entry->name);
    algorithmOfType(record.keyType).name.copy(entry->algorithm, std::size(entry->algorithm) - 1);
    entry->keyName = {entry->name, entry->algorithm, legacyKeySpecOf(record), 0};
    *ppKeyName = &entry->keyName;
    ++state.nextIndex;
    logDebug("KSP: Enumerated key: ", name);
    return ERROR_SUCCESS;
}

}  // namespace

bool setPublicKey(KspKey& key, ByteView publicKey) {
    if (publicKey.size() > sizeof key.publicKey) {
        return false;
    }
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    key.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    return true;
}

}  // namespace talvik::ksp

using talvik::ksp::BoundToken;
using talvik::ksp::entryPoint;
using talvik::ksp::keyOf;
using talvik::ksp::KspProvider;
using talvik::ksp::providerEntryPoint;
using talvik::ksp::tokenEntryPoint;

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName, DWORD,
                                  DWORD) {
    return providerEntryPoint("KSPOpenKey", hProvider,
                              [=](KspProvider& provider) { return talvik::ksp::openKey(provider, phKey, pszKeyName); });
}

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD) {
    return providerEntryPoint("KSPCreatePersistedKey", hProvider, [=](KspProvider&) {
        return talvik::ksp::createPersistedKey(phKey, pszAlgId, pszKeyName, dwLegacyKeySpec);
    });
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return tokenEntryPoint("KSPFinalizeKey", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::finalizeKey(token, keyOf(hKey), dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
    return tokenEntryPoint("KSPDeleteKey", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::deleteKey(token, keyOf(hKey), dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE hKey) {
    return entryPoint("KSPFreeKey", [=]() -> SECURITY_STATUS {
        delete keyOf(hKey);
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR, NCryptKeyName** ppKeyName, PVOID* ppEnumState,
                                   DWORD) {
    return tokenEntryPoint("KSPEnumKeys", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::enumKeys(token, ppKeyName, ppEnumState);
    });
}
