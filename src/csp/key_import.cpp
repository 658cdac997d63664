// CPImportKey: public keys stay in the handle as DER, session keys are unwrapped on the token and stay in the handle,
// plain and wrapped AES keys are stored on the token.
#include <algorithm>
#include <climits>
#include <memory>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/aes_import.h"
#include "token/algorithms.h"
#include "token/blob.h"
#include "token/handle.h"
#include "token/library_buffer.h"
#include "token/session.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

// How every blob starts; its payload follows. The last word is a public key's magic, and unread in any other blob.
struct BlobStart {
    PUBLICKEYSTRUC header;
    DWORD magic;
};
static_assert(sizeof(BlobStart) == 12);

// What every import gets: the context, the blob, the key that unwraps it, and where the new handle goes. That this is
// somewhere matters once there is a handle to make: what is wrong with the blob is told first.
struct Import {
    const CspContext& context;
    BlobStart start;
    ByteView payload;
    const KEY_HANDLE* importingKey;
    HCRYPTKEY* phKey;

    ALG_ID algId() const { return start.header.aiKeyAlg; }
};

Outcome refuseMissingHandle() {
    return fail(ERROR_INVALID_PARAMETER, "CPImportKey - phKey is null");
}

std::unique_ptr<KEY_HANDLE> newKey() {
    auto key = std::make_unique<KEY_HANDLE>();
    key->keyIdLen = sizeof key->keyId;
    return key;
}

// --- session keys ----------------------------------------------------------------------------------------------------

bool decryptSessionKey(const Import& import, ByteView ciphertext, LibraryBuffer& plaintext) {
    const std::string& deviceId = import.context.deviceId;
    const int status =
        talvik_decrypt(deviceId.c_str(), import.importingKey->keyId, getDevicePassword(deviceId).c_str(),
                       ciphertext.data(), static_cast<int>(ciphertext.size()), plaintext.bytesOut(),
                       plaintext.lengthOut(), import.importingKey->storageFlag != 0, import.context.reserved);
    return status == TALVIK_STATUS_OK && plaintext.isHonest();
}

Outcome importSessionKey(const Import& import) {
    if (import.importingKey == nullptr) {
        return fail(NTE_BAD_TYPE, "SIMPLEBLOB requires public key handle");
    }
    logDebug("Input key id : ", HexBytes{import.importingKey->keyId, sizeof import.importingKey->keyId});
    const ByteView payload = import.payload;
    const bool fits = payload.size() <= INT_MAX;  // the library takes signed lengths
    LibraryBuffer plaintext(payload.size() + resultMargin);
    if (!fits || !decryptSessionKey(import, reverseBytes(payload), plaintext)) {
        logError("SIMPLEBLOB decryption failed");
        if (!fits || !decryptSessionKey(import, payload, plaintext)) {
            return fail(NTE_FAIL, "SIMPLEBLOB decryption failed (both orderings)");
        }
    }
    const AesLength* const algorithm = findRow(aesLengths, &AesLength::algId, import.algId());
    if (algorithm == nullptr) {
        return fail(NTE_BAD_ALGID, "Unsupported algorithm for SIMPLEBLOB: ", import.algId());
    }
    const ByteView value = plaintext.view();
    std::unique_ptr<KEY_HANDLE> key = newKey();
    if (value.size() > sizeof key->aesKey) {
        return fail(NTE_BAD_DATA, "SIMPLEBLOB decryption failed (key too long)");
    }
    if (import.phKey == nullptr) {
        return refuseMissingHandle();
    }
    key->algId = algorithm->keyType;
    std::copy(value.begin(), value.end(), key->aesKey);
    key->aesKeyLen = static_cast<std::int32_t>(value.size());
    logDebug("Output key id : ", HexBytes{key->keyId, sizeof key->keyId});
    handOver(std::move(key), import.phKey);
    logDebug("SIMPLEBLOB imported successfully (AES)");
    return success();
}

// --- public keys -----------------------------------------------------------------------------------------------------

Outcome importPublicKey(const Import& import) {
    if (import.start.magic != RSA_PUBLIC_MAGIC) {
        return fail(NTE_BAD_DATA, "CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x",
                    uintToHexString(import.start.magic));
    }
    BlobCursor cursor(import.payload);
    const std::uint32_t bits = cursor.read<std::uint32_t>().value_or(0);
    const auto exponent = cursor.read<std::uint32_t>();
    const auto modulus = cursor.take(bits / 8);
    if (!exponent || !modulus) {
        return fail(NTE_BAD_DATA,
                    "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=", sizeof(BlobStart) + import.payload.size(),
                    " required=", sizeof(PublicKeyBlobHeader) + bits / 8);
    }
    const std::optional<Bytes> der = derOfBlobKey(*modulus, *exponent, "Public exponent : ");
    if (!der) {
        return fail(NTE_NO_MEMORY, "CPImportKey PUBLICKEYBLOB: failed to allocate beModulus buffer");
    }
    const RsaSize* const size = findRsaSize(bits);
    if (size == nullptr) {
        return fail(NTE_BAD_DATA, "Unsupported RSA key size");
    }
    if (import.phKey == nullptr) {
        return refuseMissingHandle();
    }
    std::unique_ptr<KEY_HANDLE> key = newKey();
    setPublicKey(*key, key->publicKeyLen, *der);
    key->algId = size->keyType;
    handOver(std::move(key), import.phKey);
    logDebug("PUBLICKEYBLOB imported successfully");
    return success();
}

// --- AES keys for the token ------------------------------------------------------------------------------------------

// A handle on a key that the token has just stored. Its value stays there.
std::unique_ptr<KEY_HANDLE> makeStoredKey(const TalvikSymmetricKey& record, ALG_ID algId) {
    std::unique_ptr<KEY_HANDLE> key = newKey();
    const std::string_view name = nameOf(record);
    describeStoredKey(*key, record);
    key->algId = algId;
    std::copy(name.begin(), name.end(), key->keyAlias);
    key->keyAliasLen = static_cast<std::uint32_t>(name.size());
    return key;
}

Outcome storeOnToken(const Import& import, ByteView value, std::uint32_t keyType, const char* failed,
                     const char* succeeded) {
    if (import.phKey == nullptr) {
        return refuseMissingHandle();
    }
    const std::optional<TalvikSymmetricKey> stored =
        storeAesKey(import.context.deviceId, value, keyType, import.context.reserved);
    if (!stored) {
        return fail(NTE_BAD_TYPE, failed);
    }
    handOver(makeStoredKey(*stored, import.algId()), import.phKey);
    logDebug(succeeded);
    return success();
}

Outcome importPlainKey(const Import& import) {
    const ALG_ID algId = import.algId();
    const AesLength* const algorithm = findRow(aesLengths, &AesLength::algId, algId);
    if (algorithm == nullptr || algId == CALG_3DES) {
        return fail(NTE_BAD_ALGID, "Unsupported algorithm for PLAINTEXTKEYBLOB: ", algId);
    }
    return storeOnToken(import, import.payload, algorithm->keyType, "PLAINTEXTKEYBLOB import failed",
                        "PLAINTEXTKEYBLOB imported successfully (AES)");
}

Outcome importWrappedKey(const Import& import) {
    const ByteView wrapped = import.payload;
    logDebug("SYMMETRICWRAPKEYBLOB: wrapped key length = ", wrapped.size());
    LibraryBuffer unwrapped(wrapped.size() + resultMargin);
    const std::optional<AesKeyIdentifier> kek =
        unwrapWithTokenKey(import.context.deviceId, wrapped, unwrapped, import.context.reserved);
    if (!kek) {
        return fail(NTE_BAD_KEY, "Failed to unwrap SYMMETRICWRAPKEYBLOB with any available KEK");
    }
    logDebug("Successfully unwrapped key with KEK: ", HexBytes{kek->data(), static_cast<int>(kek->size())});
    return storeOnToken(import, unwrapped.view(),
                        import.algId() == CALG_AES_128 ? TALVIK_KEY_AES_128 : TALVIK_KEY_AES_256,
                        "Import of unwrapped AES key failed", "SYMMETRICWRAPKEYBLOB imported successfully");
}

// --- entry -----------------------------------------------------------------------------------------------------------

Outcome importByType(const Import& import) {
    const BYTE type = import.start.header.bType;
    switch (type) {
        case SIMPLEBLOB:
            return importSessionKey(import);
        case PUBLICKEYBLOB:
            return importPublicKey(import);
        case PLAINTEXTKEYBLOB:
            return importPlainKey(import);
        case SYMMETRICWRAPKEYBLOB:
            return importWrappedKey(import);
        case PRIVATEKEYBLOB:
        case PUBLICKEYBLOBEX:
            return fail(NTE_BAD_TYPE, "Key Block Not Implemented yet");
        default:
            return fail(NTE_BAD_TYPE, "CPImportKey - Unsupported type : ", type);
    }
}

Outcome importKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                  HCRYPTKEY* phKey) {
    logDebug("CPImportKey");
    logDebug("Input length : ", dwDataLen);
    logDebug("Input flag : ", dwFlags);
    if (pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPImportKey - Input data is null");
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPImportKey - Contest null or not initialised");
    }
    BlobCursor blob({pbData, dwDataLen});
    const auto start = blob.read<BlobStart>();
    if (!start) {
        return fail(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
    }
    const ByteView payload = blob.rest();
    logDebug("CPImportKey - input type : ", start->header.bType);
    logDebug("CPImportKey - input version : ", start->header.bVersion);
    logDebug("CPImportKey - input alg : ", start->header.aiKeyAlg);
    logDebug("CPImportKey - input data length : ", payload.size());
    if (payload.empty()) {
        return fail(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
    }
    return importByType({*context, *start, payload, keyOf(hPubKey), phKey});
}

}  // namespace
}  // namespace talvik::csp

BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                        HCRYPTKEY* phKey) {
    return talvik::csp::entryPoint(
        "CPImportKey", [=] { return talvik::csp::importKey(hProv, pbData, dwDataLen, hPubKey, dwFlags, phKey); });
}
