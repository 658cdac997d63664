// CPEncrypt and CPDecrypt. A key with clear AES bytes takes the AES path, every other the RSA path of its token key
// pair.
#include <algorithm>
#include <climits>
#include <cstring>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/algorithms.h"
#include "token/library_buffer.h"
#include "token/pin_login.h"
#include "token/public_key.h"
#include "token/secret_bytes.h"
#include "token/session.h"
#include "token/shared_state.h"

namespace talvik::csp {
namespace {

constexpr PublicKeyTexts publicKeyTexts = {"CSP: Public key is already DER encoded",
                                           "CSP: Public key is raw modulus, converting to DER"};

// The length of the held public key in bytes is compared with sizes in bits, so that every key goes by the default
// size's mechanism; the library finds the real size in the key itself.
EncryptionType rsaMechanism(std::uint32_t publicKeyLength) {
    return rsaSizeOrDefault(publicKeyLength).encryption;
}

Outcome encryptRsa(const CspContext& context, const KEY_HANDLE& key, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen,
                   DWORD dwBufLen) {
    const Bytes publicKey = derPublicKeyOf(publicKeyOf(key), publicKeyTexts);
    const PaddingMode padding = (dwFlags & CRYPT_OAEP) != 0 ? PaddingMode::Oaep : PaddingMode::Pkcs1;
    SecretBytes output(largestRsaResult);
    int length = 0;
    const int status =
        talvik_encrypt(rsaMechanism(key.publicKeyLen), padding, pbData, static_cast<int>(*pdwDataLen), output.data(),
                       &length, publicKey.data(), static_cast<int>(publicKey.size()), context.reserved);
    if (status != TALVIK_STATUS_OK || length < 0 || length > static_cast<int>(output.size())) {
        return fail(NTE_PROVIDER_DLL_FAIL, "Encrypt data failed: ", status);
    }
    *pdwDataLen = static_cast<DWORD>(length);
    if (dwBufLen < *pdwDataLen) {
        return fail(ERROR_MORE_DATA, "CPEncrypt: output buffer too small, required=", length);
    }
    std::reverse_copy(output.data(), output.data() + length, pbData);
    logDebug("CPEncrypt - return success");
    return success();
}

Outcome encryptAes(const CspContext& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pdwDataLen, DWORD dwBufLen) {
    logDebug("CPEncrypt: symmetric encryption, keyLen=", key.aesKeyLen);
    const AesLength* const keyLength = findAesLength(static_cast<std::size_t>(key.aesKeyLen));
    if (keyLength == nullptr) {
        return fail(NTE_BAD_KEY, "CPEncrypt: unsupported symmetric key length: ", key.aesKeyLen);
    }
    const IvSnapshot iv = sharedIv();
    LibraryBuffer output(*pdwDataLen + resultMargin, LibraryBuffer::Content::Ciphertext);
    const int status =
        talvik_encrypt_aes(context.deviceId.c_str(), keyLength->encryption(!iv.empty()), key.aesKey, key.aesKeyLen,
                           pbData, static_cast<int>(*pdwDataLen), output.bytesOut(), output.lengthOut(), false,
                           iv.data(), iv.length(), nullptr, 0, context.reserved);
    if (status != TALVIK_STATUS_OK || !output.isHonest()) {
        return fail(NTE_PROVIDER_DLL_FAIL, "CPEncrypt: symmetric encryption failed: ", status);
    }
    const ByteView ciphertext = output.view();
    *pdwDataLen = static_cast<DWORD>(ciphertext.size());
    if (ciphertext.size() > dwBufLen) {
        return fail(ERROR_MORE_DATA, "CPEncrypt: symmetric output buffer too small, required=", ciphertext.size());
    }
    std::copy(ciphertext.begin(), ciphertext.end(), pbData);
    logDebug("CPEncrypt: symmetric encryption success, length=", ciphertext.size());
    return success();
}

Outcome encrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen, DWORD dwBufLen) {
    logDebug("CPEncrypt");
    if (pdwDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null");
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPEncrypt: context is null or not initialized");
    }
    if (hKey == 0) {
        return fail(NTE_BAD_KEY, "CPEncrypt: key handle is null");
    }
    const KEY_HANDLE& key = *keyOf(hKey);
    const DWORD required = key.keyBits / 8;
    if (pbData == nullptr) {
        *pdwDataLen = required;
        return success();
    }
    if (dwBufLen < required) {
        *pdwDataLen = required;
        return fail(ERROR_MORE_DATA, "CPEncrypt: buffer too small, cbBufLen=", dwBufLen, " requiredSize=", required);
    }
    if (*pdwDataLen == 0 || *pdwDataLen > INT_MAX) {
        return fail(NTE_BAD_LEN, "Invalid data length for encrypt: ", *pdwDataLen);
    }
    return key.aesKeyLen < 1 ? encryptRsa(*context, key, dwFlags, pbData, pdwDataLen, dwBufLen)
                             : encryptAes(*context, key, pbData, pdwDataLen, dwBufLen);
}

// Plaintexts take the place of their ciphertext: the input's length is the room there is.
Outcome deliverPlaintext(ByteView plaintext, BYTE* pbData, DWORD* pdwDataLen) {
    const DWORD room = *pdwDataLen;
    *pdwDataLen = static_cast<DWORD>(plaintext.size());
    if (plaintext.size() > room) {
        return fail(ERROR_MORE_DATA, "CPDecrypt: output buffer too small, required=", plaintext.size());
    }
    std::copy(plaintext.begin(), plaintext.end(), pbData);
    logDebug("CPDecrypt- return");
    return success();
}

Outcome decryptRsa(const CspContext& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pdwDataLen) {
    const auto ensurePin = [&] { return ensurePasswordValidated(context.deviceId, context.reserved); };
    if (!ensurePin()) {
        return failAsSet("CPDecrypt: ensurePasswordValidated failed");
    }
    logDebug("Before reversing encrypted data");
    const Bytes ciphertext = reverseBytes({pbData, *pdwDataLen});
    logDebug("After reversing encrypted data");
    logDebug("Before decrypting data");
    LibraryBuffer output(ciphertext.size() + resultMargin);
    const auto decrypt = [&](const char* pin) {
        return talvik_decrypt(context.deviceId.c_str(), key.keyId, pin, ciphertext.data(),
                              static_cast<int>(ciphertext.size()), output.bytesOut(), output.lengthOut(),
                              key.storageFlag != 0, context.reserved);
    };
    const std::optional<int> status =
        withSignOnRetry(context.deviceId, "CPDecrypt: SSO expired, re-prompting for PIN", decrypt, ensurePin);
    if (!status) {
        return failAsSet("CPDecrypt: ensurePasswordValidated failed after SSO expiry");
    }
    logDebug("After decrypting data");
    if (*status != TALVIK_STATUS_OK || !output.isHonest()) {
        return fail(NTE_PROVIDER_DLL_FAIL, "Decrypt data failed : ", *status);
    }
    return deliverPlaintext(output.view(), pbData, pdwDataLen);
}

Outcome decryptAes(const CspContext& context, const KEY_HANDLE& key, BYTE* pbData, DWORD* pdwDataLen) {
    const IvSnapshot iv = sharedIv();
    SecretBytes output(*pdwDataLen);
    int length = static_cast<int>(output.size());
    logDebug("CPDecrypt input iv : ", HexBytes{iv.data(), iv.length()});
    logDebug("CPDecrypt input key : ", HexBytes{key.aesKey, key.aesKeyLen});
    const int status = talvik_decryptSymetric(context.deviceId.c_str(), pbData, length, output.data(), &length,
                                              iv.data(), iv.length(), key.aesKey, key.aesKeyLen, nullptr);
    if (status != TALVIK_STATUS_OK || length < 0 || static_cast<std::size_t>(length) > output.size()) {
        return fail(NTE_PROVIDER_DLL_FAIL, "Symetric decryption failed : ", status);
    }
    logDebug("CPDecrypt - decrypted data : ", HexBytes{output.data(), length});
    return deliverPlaintext(output.first(static_cast<std::size_t>(length)), pbData, pdwDataLen);
}

Outcome decrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwFlags, BYTE* pbData, DWORD* pdwDataLen) {
    logDebug("CPDecrypt");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPDecrypt: context is null or not initialized");
    }
    if (hKey == 0) {
        return fail(NTE_BAD_KEY, "CPDecrypt: key handle is null");
    }
    if (pdwDataLen == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPDecrypt: pcbDataLen is null");
    }
    const KEY_HANDLE& key = *keyOf(hKey);
    logDebug("CPDecrypt - dwFlags : ", dwFlags);
    logDebug("CPDecrypt - key id : ", HexBytes{key.keyId, static_cast<int>(key.keyIdLen)});
    logDebug("CPDecrypt - usage : ", key.keyUsage);
    if (pbData == nullptr || *pdwDataLen == 0 || *pdwDataLen > INT_MAX) {
        return fail(NTE_BAD_DATA, "Invalid data length for decrypt : ", *pdwDataLen);
    }
    return key.aesKeyLen < 1 ? decryptRsa(*context, key, pbData, pdwDataLen)
                             : decryptAes(*context, key, pbData, pdwDataLen);
}

}  // namespace
}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen, DWORD dwBufLen) {
    return entryPoint("CPEncrypt",
                      [=] { return talvik::csp::encrypt(hProv, hKey, dwFlags, pbData, pdwDataLen, dwBufLen); });
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen) {
    return entryPoint("CPDecrypt", [=] { return talvik::csp::decrypt(hProv, hKey, dwFlags, pbData, pdwDataLen); });
}
