// CPGetKeyParam and CPSetKeyParam.
#include <algorithm>
#include <cstring>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/algorithms.h"
#include "token/pin_login.h"
#include "token/session.h"
#include "token/shared_state.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

// A null buffer and a zero length both ask for the size here.
bool isSizeQuery(Output out) {
    return out.buffer == nullptr || out.size == nullptr || *out.size == 0;
}

Outcome answerSize(DWORD size, Output out) {
    if (out.size == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pcbDataLen is null");
    }
    *out.size = size;
    return success();
}

Outcome getWord(DWORD value, Output out, const char* name) {
    if (isSizeQuery(out)) {
        return answerSize(sizeof value, out);
    }
    return answer(bytesOf(value), out, "CPGetKeyParam - Output buffer length for ", name,
                  " not enough : ", sizeof value);
}

Outcome getAlgId(const KEY_HANDLE& key, Output out) {
    if (isSizeQuery(out)) {
        logDebug("CPGetKeyParam - input for alg id is null");
        return answerSize(sizeof key.algId, out);
    }
    if (*out.size >= sizeof key.algId) {
        logDebug("CPGetKeyParam - copying alg id : ", key.algId);
    }
    return answer(bytesOf(key.algId), out,
                  "CPGetKeyParam - Output buffer length for alg not enough : ", sizeof key.algId);
}

bool belongsTo(const TalvikCertificate& certificate, const KEY_HANDLE& key) {
    const std::string_view label = labelOf(certificate);
    return (!label.empty() && label == key.label) || equalBytes(talvik::aliasOf(certificate), aliasOf(key));
}

Outcome getCertificate(const CspContext& context, const KEY_HANDLE& key, Output out) {
    talvik_initDevice(context.deviceId.c_str(), true, context.reserved);
    const std::vector<TalvikCertificate> certificates =
        talvik_getCertificateList(context.deviceId.c_str(), context.reserved);
    const auto found = std::ranges::find_if(
        certificates, [&](const TalvikCertificate& certificate) { return belongsTo(certificate, key); });
    if (found == certificates.end()) {
        return fail(NTE_NOT_FOUND, "CPGetKeyParam - Certificate not found");
    }
    const ByteView der = derOf(*found);
    if (isSizeQuery(out)) {
        return answerSize(static_cast<DWORD>(der.size()), out);
    }
    return answer(der, out, "CPGetKeyParam - Output buffer length for certificate not enough : ", der.size());
}

Outcome getParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, Output out) {
    logDebug("CPGetKeyParam");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPGetKeyParam: context is null or not initialized");
    }
    if (hKey == 0) {
        return fail(NTE_BAD_KEY, "CPGetKeyParam: key handle is null");
    }
    const KEY_HANDLE& key = *keyOf(hKey);
    logDebug("CPGetKeyParam - dwparam : ", dwParam);
    logDebug("CPGetKeyParam - key id : ", HexBytes{key.keyId, static_cast<int>(key.keyIdLen)});
    switch (dwParam) {
        case KP_PERMISSIONS:
            return getWord(usageExchanges(key.keyUsage) ? CRYPT_DECRYPT : 0, out, "permission");
        case KP_ALGID:
            return getAlgId(key, out);
        case KP_BLOCKLEN:
        case KP_KEYLEN:
            return getWord(key.keyBits, out, "blocklen");
        case KP_CERTIFICATE:
            return getCertificate(*context, key, out);
        default:
            return fail(NTE_BAD_TYPE, "CPGetKeyParam - unsupported input : ", dwParam);
    }
}

// The caller gives no length: the certificate's own header tells it, of which no more is read than there is. A length
// of three octets serves any certificate.
constexpr std::size_t longestCertificateHeader = 5;

// The PIN for storing a certificate: the remembered one, else the user is asked. False when there is none to be had; an
// empty PIN is what single sign-on gives.
bool pinForCertificate(const CspContext& context, SecretText& pin) {
    pin = getDevicePassword(context.deviceId);
    if (!pin.empty() || context.deviceId.empty()) {
        return true;
    }
    return loginUser(context.deviceId, context.reserved, pin);
}

Outcome setCertificate(const CspContext& context, const KEY_HANDLE& key, const BYTE* pbData) {
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_CERTIFICATE pbData is null");
    }
    if (pbData[0] != 0x30) {
        return fail(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE invalid DER (not a SEQUENCE)");
    }
    const std::optional<DerHeader> header = derReadHeader({pbData, longestCertificateHeader});
    if (!header) {
        return fail(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE unsupported DER length encoding");
    }
    const std::size_t total = header->size + header->contentSize;
    logDebug("CPSetKeyParam: KP_CERTIFICATE DER length=", total);
    if (total > sizeof TalvikCertificate::der) {
        return fail(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE certificate too large");
    }
    SecretText pin;
    if (!pinForCertificate(context, pin)) {
        return fail(NTE_FAIL, "CPSetKeyParam: KP_CERTIFICATE login failed");
    }
    const int status =
        storeCertificate(context.deviceId, pin.c_str(), key, aliasOf(key), {pbData, total}, context.reserved);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_FAIL, "CPSetKeyParam: KP_CERTIFICATE import failed ret=", status);
    }
    logDebug("CPSetKeyParam: KP_CERTIFICATE imported successfully");
    return success();
}

// The caller gives no length either: the key's algorithm code, set by an import, tells the vector's size. A 128-bit key
// takes none.
Outcome setIv(const KEY_HANDLE& key, const BYTE* pbData) {
    const AesLength* const cipher = findRow(aesLengths, &AesLength::keyType, key.algId);
    if (cipher == nullptr || cipher->keyType == TALVIK_KEY_AES_128) {
        return success();
    }
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_IV pbData is null");
    }
    setSharedIv({pbData, cipher->ivSize});
    return success();
}

// Accepted and noted, with no effect: a token key has no padding, mode or permissions to change.
Outcome noteWord(const BYTE* pbData, const char* name) {
    if (pbData != nullptr) {
        DWORD value = 0;
        std::memcpy(&value, pbData, sizeof value);
        logDebug("CPSetKeyParam: ", name, " = ", value);
    }
    return success();
}

Outcome setParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    logDebug("CPSetKeyParam");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPSetKeyParam: context is null or not initialized");
    }
    if (hKey == 0) {
        return fail(NTE_BAD_KEY, "CPSetKeyParam: key handle is null");
    }
    const KEY_HANDLE& key = *keyOf(hKey);
    logDebug("Set key param key id : ", HexBytes{key.keyId, sizeof key.keyId});
    logDebug("Set key param  dwParam : ", dwParam);
    logDebug("Set key param  dwFlags : ", dwFlags);
    logDebug("Set key param key algo : ", key.algId);
    switch (dwParam) {
        case KP_IV:
            return setIv(key, pbData);
        case KP_PADDING:
            return noteWord(pbData, "KP_PADDING");
        case KP_MODE:
            return noteWord(pbData, "KP_MODE");
        case KP_PERMISSIONS:
            return noteWord(pbData, "KP_PERMISSIONS");
        case KP_CERTIFICATE:
            return setCertificate(*context, key, pbData);
        default:
            logDebug("CPSetKeyParam: unhandled dwParam=", dwParam);
            return success();
    }
}

}  // namespace
}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen, DWORD) {
    return entryPoint("CPGetKeyParam", [=] {
        return talvik::csp::getParam(hProv, hKey, dwParam, {pbData, pcbDataLen});
    });
}

BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    return entryPoint("CPSetKeyParam", [=] { return talvik::csp::setParam(hProv, hKey, dwParam, pbData, dwFlags); });
}
