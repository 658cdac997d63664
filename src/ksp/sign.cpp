// KSPSignHash and KSPVerifySignature.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ksp/entry_points.h"
#include "ksp/key.h"
#include "ksp/provider.h"
#include "ksp/rsa.h"
#include "log/log.h"

namespace talvik::ksp {
namespace {

constexpr std::string_view firstFirmwareWithPss = "2.0.0";

// The number before the first '.', which is cut off together with it; 0 once nothing is left.
long takeVersionPiece(std::string_view& version) {
    const std::size_t dot = std::min(version.find('.'), version.size());
    const std::string piece(version.substr(0, dot));
    version.remove_prefix(std::min(dot + 1, version.size()));
    return std::strtol(piece.c_str(), nullptr, 10);
}

bool isLowerVersion(std::string_view left, std::string_view right) {
    while (!left.empty() || !right.empty()) {
        const long leftPiece = takeVersionPiece(left);
        const long rightPiece = takeVersionPiece(right);
        if (leftPiece != rightPiece) {
            return leftPiece < rightPiece;
        }
    }
    return false;
}

// Logs the chosen padding and refuses one that the token cannot do. `operation` names the entry point without its
// prefix.
SECURITY_STATUS checkPadding(const char* operation, const BoundToken& token, bool usePss) {
    logDebug("KSP: ", operation, " - padding=", usePss ? "PSS" : "PKCS1");
    if (usePss && isLowerVersion(token.firmwareVersion, firstFirmwareWithPss)) {
        return fail(NTE_NOT_SUPPORTED, "KSP", operation, ": PSS not supported on firmware ", token.firmwareVersion);
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS signOnToken(const BoundToken& token, const KspKey& key, ByteView hash, Output out, DWORD dwFlags,
                            bool usePss) {
    RsaResult signature;
    const auto sign = [&](const char* pin) {
        return talvik_signHash(token.deviceId.c_str(), key.keyId, pin, hash.data(), lengthOf(hash),
                               signature.bytesOut(), signature.lengthOut(), false, token.libraryContext, usePss);
    };
    int status = TALVIK_STATUS_OK;
    const SECURITY_STATUS refusal =
        runUnderPin("KSPSignHash", token, dwFlags, "KSP: SignHash SSO expired, re-prompting for PIN", sign, status);
    if (refusal != ERROR_SUCCESS) {
        return refusal;
    }
    if (status != TALVIK_STATUS_OK || !signature.isHonest()) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Sign hash failed: ", status);
    }
    const SECURITY_STATUS answered =
        answer(signature.view(), out, "KSPSignHash: signature buffer too small, required=");
    if (answered == ERROR_SUCCESS) {
        logDebug("KSP: SignHash success, signature length=", *out.size);
    }
    return answered;
}

SECURITY_STATUS signHash(const BoundToken& token, const KspKey* key, ByteView hash, Output out, DWORD dwFlags) {
    if (key == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPSignHash: key handle or pcbResult is null");
    }
    const DWORD size = key->keyLength / 8;
    if (out.isSizeQuery()) {
        logDebug("KSP: SignHash size query, returning ", size);
        return answerSize(size, out);
    }
    if (hash.data() == nullptr || hash.empty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPSignHash: pbHashValue is null or cbHashValue is zero");
    }
    if (out.room < size) {
        *out.size = size;
        return fail(NTE_BUFFER_TOO_SMALL, "KSPSignHash: signature buffer too small, required=", size);
    }
    if (isTooLong(hash)) {
        return fail(NTE_INVALID_PARAMETER, "KSPSignHash: cbHashValue is too large");
    }
    if (const SECURITY_STATUS refusal = requirePin("KSPSignHash", token, dwFlags); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    // With both paddings asked for, signing takes the one of PKCS #1 while verifying takes PSS.
    const bool usePss = (dwFlags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) == BCRYPT_PAD_PSS;
    if (const SECURITY_STATUS refusal = checkPadding("SignHash", token, usePss); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    logDebug("KSP: SignHash - credential: ", HexBytes{key->keyId, sizeof key->keyId});
    logDebug("KSP: SignHash - hash length: ", hash.size());
    return signOnToken(token, *key, hash, out, dwFlags, usePss);
}

SECURITY_STATUS verifySignature(const BoundToken& token, const KspKey* key, ByteView hash, ByteView signature,
                                DWORD dwFlags) {
    if (key == nullptr) {
        return fail(NTE_INVALID_HANDLE, "KSPVerifySignature: key handle is null");
    }
    if (hash.data() == nullptr || hash.empty() || signature.data() == nullptr || signature.empty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPVerifySignature: invalid input parameters");
    }
    if (key->publicKeyLength == 0) {
        return fail(NTE_BAD_KEY, "KSP: No public key for verification");
    }
    if (isTooLong(hash) || isTooLong(signature)) {
        return fail(NTE_INVALID_PARAMETER, "KSPVerifySignature: invalid input parameters");
    }
    const Bytes publicKey = derPublicKeyOf(publicKeyOf(*key), publicKeyTexts);
    logDebug("KSP: VerifySignature - hash length: ", hash.size());
    logDebug("KSP: VerifySignature - public key length: ", publicKey.size());
    logDebug("KSP: VerifySignature - signature length: ", signature.size());
    const bool usePss = (dwFlags & BCRYPT_PAD_PSS) != 0;
    if (const SECURITY_STATUS refusal = checkPadding("VerifySignature", token, usePss); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    const int status = talvik_verifySignatureHash(key->algorithm, token.deviceId.c_str(), hash.data(), lengthOf(hash),
                                                  publicKey.data(), lengthOf(publicKey), signature.data(),
                                                  lengthOf(signature), token.libraryContext, usePss);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_BAD_SIGNATURE, "KSP: Verify signature failed: ", status);
    }
    logDebug("KSP: Verify signature success");
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace talvik::ksp

using talvik::ksp::BoundToken;
using talvik::ksp::keyOf;
using talvik::ksp::tokenEntryPoint;

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*, PBYTE pbHashValue,
                                   DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature, DWORD* pcbResult,
                                   DWORD dwFlags) {
    return tokenEntryPoint("KSPSignHash", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::signHash(token, keyOf(hKey), {pbHashValue, cbHashValue},
                                     {pbSignature, cbSignature, pcbResult}, dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                          DWORD dwFlags) {
    return tokenEntryPoint("KSPVerifySignature", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::verifySignature(token, keyOf(hKey), {pbHashValue, cbHashValue}, {pbSignature, cbSignature},
                                            dwFlags);
    });
}
