// CPImportKey: public keys stay in the handle as DER, session keys are unwrapped on the token and stay in the handle,
// plain and wrapped AES keys are stored on the token.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "csp/blob.h"
#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/key.h"
#include "csp/outcome.h"
#include "log/log.h"
#include "token/aes_import.h"
#include "token/algorithms.h"
#include "token/library_buffer.h"
#include "token/session.h"

namespace talvik::csp {
namespace {

constexpr std::size_t resultMargin = 1024;  // how much longer than its input an honest plaintext can be

// What every import gets: the context, the blob, the key that unwraps it, and where the new handle goes. That this is
// somewhere matters once there is a handle to make: what is wrong with the blob is told first.
struct Import {
    const CspContext& context;
    BlobReader blob;
    const KEY_HANDLE* importingKey;
    HCRYPTKEY* phKey;

    ByteView payload() const { return blob.from(BLOB_PAYLOAD); }
    ALG_ID algId() const { return blob.wordAt(BLOB_ALG_ID); }
};

Outcome refuseMissingHandle() {
    return fail(ERROR_INVALID_PARAMETER, "CPImportKey - phKey is null");
}

void handOver(std::unique_ptr<KEY_HANDLE> key, HCRYPTKEY* phKey) {
    *phKey = reinterpret_cast<HCRYPTKEY>(key.release());
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
    const ByteView payload = import.payload();
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
    const BlobReader& blob = import.blob;
    const std::uint32_t magic = blob.wordAt(BLOB_RSA_MAGIC);
    if (magic != RSA_PUBLIC_MAGIC) {
        return fail(NTE_BAD_DATA, "CPImportKey PUBLICKEYBLOB: magic mismatch, actual=0x", uintToHexString(magic));
    }
    const std::uint32_t bits = blob.wordAt(BLOB_RSA_BITS);
    const std::size_t modulusSize = bits / 8;
    if (blob.size() < BLOB_RSA_MODULUS + modulusSize) {
        return fail(NTE_BAD_DATA, "CPImportKey PUBLICKEYBLOB: size mismatch, cbDataLen=", blob.size(),
                    " required=", BLOB_RSA_MODULUS + modulusSize);
    }
    const std::unique_ptr<unsigned char[]> modulus(new (std::nothrow) unsigned char[modulusSize]);
    if (modulus == nullptr) {
        return fail(NTE_NO_MEMORY, "CPImportKey PUBLICKEYBLOB: failed to allocate beModulus buffer");
    }
    const ByteView littleEndian = blob.from(BLOB_RSA_MODULUS).first(modulusSize);
    std::reverse_copy(littleEndian.begin(), littleEndian.end(), modulus.get());
    const Bytes exponent = uintToBigEndianBytes(static_cast<std::int32_t>(blob.wordAt(BLOB_RSA_EXPONENT)), 3);
    logDebug("Public exponent : ", HexBytes{exponent.data(), static_cast<int>(exponent.size())});
    const Bytes der = buildRsaPublicKeyDerFromBytes({modulus.get(), modulusSize}, exponent);
    const RsaSize* const size = findRsaSize(bits);
    if (size == nullptr) {
        return fail(NTE_BAD_DATA, "Unsupported RSA key size");
    }
    if (import.phKey == nullptr) {
        return refuseMissingHandle();
    }
    std::unique_ptr<KEY_HANDLE> key = newKey();
    std::copy(der.begin(), der.end(), key->publicKey);
    key->publicKeyLen = static_cast<std::uint32_t>(der.size());
    key->algId = size->keyType;
    handOver(std::move(key), import.phKey);
    logDebug("PUBLICKEYBLOB imported successfully");
    return success();
}

// --- AES keys for the token ------------------------------------------------------------------------------------------

template <std::size_t Capacity>
std::string_view textOf(const char (&field)[Capacity]) {
    return {field, std::find(field, field + Capacity, '\0')};
}

// A handle on a key that the token has just stored. Its value stays there.
std::unique_ptr<KEY_HANDLE> describeStoredKey(const TalvikSymmetricKey& record, ALG_ID algId) {
    std::unique_ptr<KEY_HANDLE> key = newKey();
    const std::string_view label = textOf(record.label);
    const std::string_view name = textOf(record.name);
    std::memcpy(key->keyId, record.identifier, sizeof key->keyId);
    key->algId = algId;
    key->keyUsage = record.usage;
    std::copy(name.begin(), name.end(), key->keyAlias);
    key->keyAliasLen = static_cast<std::uint32_t>(name.size());
    std::copy(label.begin(), label.end(), key->label);
    key->storageFlag = record.storageFlag;
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
    handOver(describeStoredKey(*stored, import.algId()), import.phKey);
    logDebug(succeeded);
    return success();
}

Outcome importPlainKey(const Import& import) {
    const ALG_ID algId = import.algId();
    const AesLength* const algorithm = findRow(aesLengths, &AesLength::algId, algId);
    if (algorithm == nullptr || algId == CALG_3DES) {
        return fail(NTE_BAD_ALGID, "Unsupported algorithm for PLAINTEXTKEYBLOB: ", algId);
    }
    return storeOnToken(import, import.payload(), algorithm->keyType, "PLAINTEXTKEYBLOB import failed",
                        "PLAINTEXTKEYBLOB imported successfully (AES)");
}

Outcome importWrappedKey(const Import& import) {
    const ByteView wrapped = import.payload();
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
    const std::uint8_t type = import.blob.byteAt(BLOB_TYPE);
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
    if (dwDataLen < BLOB_PAYLOAD) {
        return fail(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
    }
    const BlobReader blob({pbData, dwDataLen});
    logDebug("CPImportKey - input type : ", blob.byteAt(BLOB_TYPE));
    logDebug("CPImportKey - input version : ", blob.byteAt(BLOB_VERSION));
    logDebug("CPImportKey - input alg : ", blob.wordAt(BLOB_ALG_ID));
    logDebug("CPImportKey - input data length : ", dwDataLen - BLOB_PAYLOAD);
    if (dwDataLen == BLOB_PAYLOAD) {
        return fail(NTE_INVALID_PARAMETER, "CPImportKey - Input data to import is empty");
    }
    return importByType({*context, blob, keyOf(hPubKey), phKey});
}

}  // namespace
}  // namespace talvik::csp

BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD dwDataLen, HCRYPTKEY hPubKey, DWORD dwFlags,
                        HCRYPTKEY* phKey) {
    return talvik::csp::entryPoint(
        "CPImportKey", [=] { return talvik::csp::importKey(hProv, pbData, dwDataLen, hPubKey, dwFlags, phKey); });
}
