// CPExportKey: the public half of an RSA-2048 key on the token, nothing else.
#include <algorithm>
#include <cstring>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/blob.h"
#include "token/key_pair_list.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

void writePublicKeyBlob(ByteView modulus, std::uint32_t algId, BYTE* blob) {
    const PublicKeyBlobHeader header = publicKeyBlobHeader(algId, modulus.size());
    std::memcpy(blob, &header, sizeof header);
    std::ranges::reverse_copy(modulus, blob + sizeof header);
}

Outcome ExportPublicKeyComponents(const CspContext& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pdwDataLen) {
    const KeyPairList records(context.deviceId, context.reserved);
    if (records.empty()) {
        return fail(NTE_BAD_KEY, "ExportPublicKeyComponents: key list is empty");
    }
    const auto record = std::ranges::find_if(records, [&](const TalvikKeyPair& candidate) {
        return std::memcmp(candidate.keyId, key.keyId, sizeof key.keyId) == 0;
    });
    if (record == records.end()) {
        return fail(NTE_BAD_KEY, "ExportPublicKeyComponents: matching key not found in key list");
    }
    if (record->keyType != TALVIK_KEY_RSA_2048) {
        return fail(NTE_BAD_KEY, "ExportPublicKeyComponents: key algorithm is not RSA-2048, cannot export");
    }
    const ByteView modulus = talvik::publicKeyOf(*record);
    const DWORD required = static_cast<DWORD>(sizeof(PublicKeyBlobHeader) + modulus.size());
    const DWORD room = *pdwDataLen;
    *pdwDataLen = required;
    if (pbData == nullptr) {
        logDebug("Emport public key more data required");
        return successLeaving(ERROR_MORE_DATA);
    }
    if (room < required) {
        return fail(ERROR_MORE_DATA, "ExportPublicKeyComponents: output buffer too small, required=", required);
    }
    logDebug("key usage : ", key.algId);
    writePublicKeyBlob(modulus, key.algId, pbData);
    return successLeaving(ERROR_SUCCESS);
}

Outcome exportByType(const CspContext& context, const KEY_HANDLE& key, DWORD dwBlobType, BYTE* pbData,
                     DWORD* pdwDataLen) {
    switch (dwBlobType) {
        case PUBLICKEYBLOB:
            return ExportPublicKeyComponents(context, key, pbData, pdwDataLen);
        case PRIVATEKEYBLOB:
            return fail(ERROR_ACCESS_DENIED, "CPExportKey: PRIVATEKEYBLOB export denied");
        default:
            return fail(NTE_BAD_TYPE, "CPExportKey: unsupported dwBlobType=", dwBlobType);
    }
}

Outcome exportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwBlobType, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen) {
    logDebug("CPExportKey");
    logDebug("dwBlobType : ", dwBlobType);
    logDebug("dwFlags : ", dwFlags);
    if (hKey == 0 || pdwDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null");
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPExportKey: context is null or not initialized");
    }
    const Outcome outcome = exportByType(*context, *keyOf(hKey), dwBlobType, pbData, pdwDataLen);
    logDebug("Exportkey return status : ", outcome.result);
    return outcome;
}

}  // namespace
}  // namespace talvik::csp

BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY, DWORD dwBlobType, DWORD dwFlags, BYTE* pbData,
                        DWORD* pdwDataLen) {
    return talvik::csp::entryPoint(
        "CPExportKey", [=] { return talvik::csp::exportKey(hProv, hKey, dwBlobType, dwFlags, pbData, pdwDataLen); });
}
