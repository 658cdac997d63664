// KSPEncrypt and KSPDecrypt.
#include <functional>
#include <optional>
#include <string>

#include "ksp/entry_points.h"
#include "ksp/key.h"
#include "ksp/provider.h"
#include "ksp/rsa.h"
#include "log/log.h"
#include "token/algorithms.h"
#include "token/library_buffer.h"
#include "token/secret_bytes.h"
#include "token/shared_state.h"

namespace talvik::ksp {
namespace {

// What an AES encryption adds to its input at most: padding, and a margin for a library that adds a block of its own.
constexpr std::size_t longestAesAddition = 64;

constexpr char tooLargeToEncrypt[] = "KSPEncrypt: cbInput is too large";

IvSnapshot ivFor(const KspKey& key) {
    return key.useEcb != 0 ? IvSnapshot(nullptr) : sharedIv();
}

SECURITY_STATUS encryptRsa(const BoundToken& token, const KspKey& key, ByteView input, Output out, DWORD dwFlags) {
    const DWORD size = key.keyLength / 8;
    if (out.isSizeQuery()) {
        return answerSize(size, out);
    }
    if (out.room < size) {
        *out.size = size;
        return fail(NTE_BUFFER_TOO_SMALL, "KSPEncrypt: output buffer too small, required=", size);
    }
    if (isTooLong(input)) {
        return fail(NTE_INVALID_PARAMETER, tooLargeToEncrypt);
    }
    const Bytes publicKey = derPublicKeyOf(publicKeyOf(key), publicKeyTexts);
    const PaddingMode padding = (dwFlags & NCRYPT_PAD_OAEP_FLAG) != 0 ? PaddingMode::Oaep : PaddingMode::Pkcs1;
    RsaResult ciphertext;
    const int status = talvik_encrypt(rsaSizeOrDefault(key.keyLength).encryption, padding, input.data(),
                                      lengthOf(input), ciphertext.bytesOut(), ciphertext.lengthOut(), publicKey.data(),
                                      lengthOf(publicKey), token.libraryContext);
    if (status != TALVIK_STATUS_OK || !ciphertext.isHonest()) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Encrypt failed: ", status);
    }
    const SECURITY_STATUS answered = answer(ciphertext.view(), out, "KSPEncrypt: output buffer too small, required=");
    if (answered == ERROR_SUCCESS) {
        logDebug("KSP: Encrypt success");
    }
    return answered;
}

// A size query is answered like any other call, by doing the work: only the library knows the padding.
SECURITY_STATUS encryptAes(const BoundToken& token, const KspKey& key, ByteView input, Output out) {
    if (isTooLong(input)) {
        return fail(NTE_INVALID_PARAMETER, tooLargeToEncrypt);
    }
    logDebug("KSP: Symmetric encrypt ", key.useEcb != 0 ? "ECB" : "CBC", " mode");
    const IvSnapshot iv = ivFor(key);
    LibraryBuffer ciphertext(input.size() + longestAesAddition, LibraryBuffer::Content::Ciphertext);
    const int status = talvik_encrypt_aes(
        token.deviceId.c_str(), aesEncryption(key.symmetricKeyLength, key.useEcb == 0), key.symmetricKey,
        lengthOf(symmetricKeyOf(key)), input.data(), lengthOf(input), ciphertext.bytesOut(), ciphertext.lengthOut(),
        false, iv.data(), iv.length(), nullptr, 0, token.libraryContext);
    if (status != TALVIK_STATUS_OK || !ciphertext.isHonest()) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Symmetric encryption failed: ", status);
    }
    const SECURITY_STATUS answered =
        answer(ciphertext.view(), out, "KSPEncrypt: symmetric output buffer too small, required=");
    if (answered == ERROR_SUCCESS && !out.isSizeQuery()) {
        logDebug("KSP: Symmetric encrypt success, length: ", *out.size);
    }
    return answered;
}

SECURITY_STATUS encrypt(const BoundToken& token, const KspKey* key, ByteView input, Output out, DWORD dwFlags) {
    if (key == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPEncrypt: key handle or pcbResult is null");
    }
    if (input.data() == nullptr || input.empty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPEncrypt: pbInput is null or cbInput is zero");
    }
    return key->symmetricKeyLength == 0 ? encryptRsa(token, *key, input, out, dwFlags)
                                        : encryptAes(token, *key, input, out);
}

SECURITY_STATUS decryptRsa(const BoundToken& token, const KspKey& key, ByteView input, Output out, DWORD dwFlags) {
    if (const SECURITY_STATUS refusal = requirePin("KSPDecrypt", token, dwFlags); refusal != ERROR_SUCCESS) {
        return refusal;
    }
    LibraryBuffer plaintext(largestRsaResult);
    const auto decryptOnToken = [&](const char* pin) {
        return talvik_decrypt(token.deviceId.c_str(), key.keyId, pin, input.data(), lengthOf(input),
                              plaintext.bytesOut(), plaintext.lengthOut(), key.storageFlag != 0, token.libraryContext);
    };
    int status = TALVIK_STATUS_OK;
    const SECURITY_STATUS refusal = runUnderPin(
        "KSPDecrypt", token, dwFlags, "KSP: Decrypt SSO expired, re-prompting for PIN", decryptOnToken, status);
    if (refusal != ERROR_SUCCESS) {
        return refusal;
    }
    if (status != TALVIK_STATUS_OK || !plaintext.isHonest()) {
        return fail(NTE_INTERNAL_ERROR, "KSP: Decrypt failed: ", status);
    }
    const SECURITY_STATUS answered = answer(plaintext.view(), out, "KSPDecrypt: output buffer too small, required=");
    if (answered == ERROR_SUCCESS) {
        logDebug("KSP: Decrypt success");
    }
    return answered;
}

// Where the token writes a plaintext of unknown length, at most as long as the ciphertext: into the caller's buffer
// where that has the room and holds no part of the ciphertext, else into one of its own, which the caller gets what
// fits of. A decryption that fails leaves no plaintext behind, and the ciphertext as it was.
class Plaintext {
  public:
    Plaintext(ByteView ciphertext, Output out) : size_(ciphertext.size()) {
        if (out.room < size_ || out.isSizeQuery() || overlap(ciphertext, {out.buffer, size_})) {
            own_.emplace(size_);
        }
        bytes_ = own_ ? own_->data() : out.buffer;
    }

    unsigned char* data() const noexcept { return bytes_; }
    ByteView first(int length) const noexcept { return {bytes_, static_cast<std::size_t>(length)}; }
    void discard() const noexcept { SecureZeroMemory(bytes_, size_); }

  private:
    static bool overlap(ByteView left, ByteView right) noexcept {
        constexpr std::less<> before;  // of addresses in different objects
        return before(left.data(), right.data() + right.size()) && before(right.data(), left.data() + left.size());
    }

    std::size_t size_;
    std::optional<SecretBytes> own_;
    unsigned char* bytes_;
};

SECURITY_STATUS decryptAes(const BoundToken& token, const KspKey& key, ByteView input, Output out) {
    const IvSnapshot iv = ivFor(key);
    const ByteView keyBytes = symmetricKeyOf(key);
    logDebug("KSP: Symmetric decrypt ", key.useEcb != 0 ? "ECB" : "CBC", " mode");
    logDebug("KSP: Decrypt input iv : ", HexBytes{iv.data(), iv.length()});
    logDebug("KSP: Decrypt input key : ", HexBytes{keyBytes.data(), lengthOf(keyBytes)});
    const Plaintext plaintext(input, out);
    int length = lengthOf(input);
    const int status =
        talvik_decryptSymetric(token.deviceId.c_str(), input.data(), lengthOf(input), plaintext.data(), &length,
                               iv.data(), iv.length(), keyBytes.data(), lengthOf(keyBytes), token.libraryContext);
    if (status != TALVIK_STATUS_OK || length < 0 || length > lengthOf(input)) {
        plaintext.discard();
        return fail(NTE_INTERNAL_ERROR, "KSP: Symmetric decryption failed: ", status);
    }
    if (out.isSizeQuery()) {
        logDebug("pbOutput == NULL ");
    }
    const SECURITY_STATUS answered =
        answer(plaintext.first(length), out, "KSPDecrypt: symmetric output buffer too small, required=");
    if (answered == ERROR_SUCCESS && !out.isSizeQuery()) {
        logDebug("KSP: Symmetric decrypt success, length: ", *out.size);
    }
    return answered;
}

SECURITY_STATUS decrypt(const BoundToken& token, const KspKey* key, ByteView input, Output out, DWORD dwFlags) {
    if (key == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPDecrypt: key handle or pcbResult is null");
    }
    const bool isRsa = key->symmetricKeyLength == 0;
    if (isRsa && out.isSizeQuery()) {
        return answerSize(key->keyLength / 8, out);
    }
    if (input.data() == nullptr || input.empty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPDecrypt: pbInput is null or cbInput is zero");
    }
    if (isTooLong(input)) {
        return fail(NTE_INVALID_PARAMETER, "KSPDecrypt: cbInput is too large");
    }
    return isRsa ? decryptRsa(token, *key, input, out, dwFlags) : decryptAes(token, *key, input, out);
}

}  // namespace
}  // namespace talvik::ksp

using talvik::ksp::BoundToken;
using talvik::ksp::keyOf;
using talvik::ksp::tokenEntryPoint;

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID*, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return tokenEntryPoint("KSPEncrypt", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::encrypt(token, keyOf(hKey), {pbInput, cbInput}, {pbOutput, cbOutput, pcbResult}, dwFlags);
    });
}

SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                  VOID*, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) {
    return tokenEntryPoint("KSPDecrypt", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::decrypt(token, keyOf(hKey), {pbInput, cbInput}, {pbOutput, cbOutput, pcbResult}, dwFlags);
    });
}
