// CPSignHash and CPVerifySignature.
#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/hash.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/pin_login.h"
#include "token/public_key.h"
#include "token/session.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

// Room for the largest signature of any token key, with a margin for a library that writes more than the caller has
// room for.
constexpr std::size_t largestSignature = 1024;

DWORD signatureSize(std::uint32_t keyType) {
    switch (keyType) {
        case TALVIK_KEY_RSA_3072:
            return 384;
        case TALVIK_KEY_RSA_4096:
            return 512;
        default:
            return 256;
    }
}

void takeSignKey(HASH_CONTEXT& hash, const TalvikKeyPair& key) {
    std::memcpy(hash.signKeyId, key.keyId, sizeof hash.signKeyId);
    hash.signKeyIdLen = sizeof hash.signKeyId;
    hash.mechanism = key.keyType;
}

// The container's key that can sign. When the container's own keys cannot, the last key of the whole token that can:
// applications rely on signing with a container that holds only an exchange key.
void resolveSignKey(HASH_CONTEXT& hash, const std::vector<TalvikKeyPair>& keys, const std::string& containerName) {
    bool nameMatched = false;
    for (const TalvikKeyPair& key : keys) {
        if (!containerName.empty() && !hasContainerName(key, containerName)) {
            continue;
        }
        nameMatched = true;
        if (canSign(key)) {
            takeSignKey(hash, key);
            return;
        }
    }
    if (!nameMatched) {
        return;
    }
    const auto last = std::find_if(keys.rbegin(), keys.rend(), canSign);
    if (last != keys.rend()) {
        takeSignKey(hash, *last);
    }
}

// Hands the caller the signature in CryptoAPI's byte order.
Outcome deliverSignature(std::span<unsigned char> signature, BYTE* pbSignature, DWORD* pdwSigLen) {
    const DWORD room = *pdwSigLen;
    *pdwSigLen = static_cast<DWORD>(signature.size());
    if (room < signature.size()) {
        return fail(ERROR_MORE_DATA, "CPSignHash: signature buffer too small, required=", signature.size());
    }
    std::reverse_copy(signature.begin(), signature.end(), pbSignature);
    return success();
}

Outcome signDigest(const CspContext& context, const HASH_CONTEXT& hash, BYTE* pbSignature, DWORD* pdwSigLen) {
    unsigned char signature[largestSignature] = {};
    int length = 0;
    const auto ensurePin = [&] { return ensurePasswordValidated(context.deviceId, context.reserved); };
    const auto sign = [&](const char* pin) {
        length = static_cast<int>(*pdwSigLen);
        return talvik_signHash(context.deviceId.c_str(), hash.signKeyId, pin, hash.hashValue,
                               static_cast<int>(hash.hashValueLen), signature, &length, false, context.reserved, false);
    };
    const std::optional<int> status =
        withSignOnRetry(context.deviceId, "CPSignHash: SSO expired, re-prompting for PIN", sign, ensurePin);
    if (!status) {
        return failAsSet("CPSignHash: ensurePasswordValidated failed after SSO expiry");
    }
    if (*status != TALVIK_STATUS_OK || length < 0 || length > static_cast<int>(sizeof signature)) {
        return fail(NTE_PROVIDER_DLL_FAIL, "Sign hash failed : ", *status);
    }
    return deliverSignature({signature, static_cast<std::size_t>(length)}, pbSignature, pdwSigLen);
}

Outcome signHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwFlags, BYTE* pbSignature, DWORD* pdwSigLen) {
    logDebug("CPSignHash");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPSignHash: context is null or not initialized");
    }
    if (hHash == 0) {
        return fail(NTE_BAD_HASH, "CPSignHash: hash handle is null");
    }
    HASH_CONTEXT& hash = *hashOf(hHash);
    if (hash.hashValueLen == 0) {
        if (const auto failure = finalizeHash(hash, sizeof hash.hashValue, context->reserved)) {
            return fail(NTE_FAIL, "CPSignHash: talvik_finalHash failed with ret=", *failure);
        }
    }
    if (hash.signKeyIdLen != sizeof hash.signKeyId) {
        const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(context->deviceId.c_str(), context->reserved);
        hash.signKeyIdLen = 0;
        resolveSignKey(hash, keys, context->containerName);
        if (hash.signKeyIdLen == 0) {
            return fail(NTE_NO_KEY, "CPSignHash: sign key not found for container=", context->containerName);
        }
    }
    const bool isSizeQuery = pbSignature == nullptr;
    if (!isSizeQuery && !ensurePasswordValidated(context->deviceId, context->reserved)) {
        return failAsSet("CPSignHash: ensurePasswordValidated failed");
    }
    if (pdwSigLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSignHash: pdwSigLen is null");
    }
    if (isSizeQuery) {
        *pdwSigLen = signatureSize(hash.mechanism);
        return success();
    }
    logDebug("CPSignHash dwFlags : ", dwFlags);
    logDebug("CPSignHash hashAlgorithm : ", hash.mechanismCopy);
    logDebug("CPSignHash key mechanism : ", hash.mechanism);
    return signDigest(*context, hash, pbSignature, pdwSigLen);
}

// Reads the digest as any caller would; the text of the ERROR line when that fails.
const char* fetchDigest(HCRYPTPROV hProv, HCRYPTHASH hHash, HASH_CONTEXT& hash) {
    DWORD size = 0;
    if (CPGetHashParam(hProv, hHash, HP_HASHVAL, nullptr, &size, 0) == FALSE) {
        return "CPGetHashParam failed to get hash size";
    }
    if (size > hash.hashSize) {
        return "Hash size larger than expected";
    }
    unsigned char digest[sizeof hash.hashValue];  // hashSize is never more
    if (CPGetHashParam(hProv, hHash, HP_HASHVAL, digest, &size, 0) == FALSE) {
        return "CPGetHashParam failed to get hash value";
    }
    std::copy_n(digest, size, hash.hashValue);
    hash.hashValueLen = size;
    logDebug("Hash obtained using CPGetHashParam");
    return nullptr;
}

Bytes publicKeyFromHandle(const KEY_HANDLE& key) {
    logDebug("key handle available");
    return derPublicKeyOf(publicKeyOf(key),
                          {"Public key is already DER encoded", "Public key is not DER encoded, converting to DER"});
}

// Of the context's signing key; empty when the token has none. Its modulus is taken as it is, whatever its first byte.
Bytes publicKeyFromToken(const CspContext& context) {
    logError("Key Handle Not Initialized or Public Key Length is zero");
    logDebug("Container name : ", context.containerName);
    const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(context.deviceId.c_str(), context.reserved);
    for (const TalvikKeyPair& key : keys) {
        if (canSign(key) && (context.containerName.empty() || hasContainerName(key, context.containerName))) {
            return derOfModulus(talvik::publicKeyOf(key));
        }
    }
    return {};
}

Outcome verifyDigest(const CspContext& context, const HASH_CONTEXT& hash, ByteView publicKey, ByteView signature) {
    const Bytes tokenOrder = reverseBytes(signature);
    const int status = talvik_verifySignatureHash(
        2, context.deviceId.c_str(), hash.hashValue, static_cast<int>(hash.hashValueLen), publicKey.data(),
        static_cast<int>(publicKey.size()), tokenOrder.data(), static_cast<int>(tokenOrder.size()), nullptr, false);
    logDebug("pContext->serialNumber: ", context.deviceId);
    logDebug("pHashContext->hashLength: ", hash.hashValueLen);
    logDebug("PublicKeyLength: ", publicKey.size());
    logDebug("Signature Length: ", signature.size());
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_BAD_SIGNATURE, "VERIFY SIGNATURE FAILED :: ", status);
    }
    return success();
}

Outcome verifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, ByteView signature, HCRYPTKEY hPubKey) {
    logDebug("CPVerifySignature");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CSP Context Not Initialized");
    }
    if (hHash == 0) {
        return fail(NTE_BAD_HASH, "Hash Context is not Initialized");
    }
    HASH_CONTEXT& hash = *hashOf(hHash);
    if (hash.hashValueLen == 0) {
        if (const char* const failure = fetchDigest(hProv, hHash, hash)) {
            return fail(NTE_BAD_HASH, failure);
        }
    }
    const KEY_HANDLE* const key = keyOf(hPubKey);
    const Bytes publicKey =
        key != nullptr && key->publicKeyLen != 0 ? publicKeyFromHandle(*key) : publicKeyFromToken(*context);
    if (publicKey.empty()) {
        return fail(NTE_BAD_KEY,
                    "CPVerifySignature: container not found in key list, containerName=", context->containerName);
    }
    if (signature.data() == nullptr && !signature.empty()) {
        return fail(ERROR_INVALID_PARAMETER, "CPVerifySignature: pbSignature is null");
    }
    // The library takes signed lengths.
    if (signature.size() > INT_MAX) {
        return fail(NTE_BAD_SIGNATURE, "CPVerifySignature: signature too long, cbSigLen=", signature.size());
    }
    return verifyDigest(*context, hash, publicKey, signature);
}

}  // namespace
}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD, LPCWSTR, DWORD dwFlags, BYTE* pbSignature,
                       DWORD* pdwSigLen) {
    return entryPoint("CPSignHash",
                      [=] { return talvik::csp::signHash(hProv, hHash, dwFlags, pbSignature, pdwSigLen); });
}

BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR, DWORD) {
    return entryPoint("CPVerifySignature", [=] {
        return talvik::csp::verifySignature(hProv, hHash, {pbSignature, cbSigLen}, hPubKey);
    });
}
