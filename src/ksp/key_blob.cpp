// KSPImportKey and KSPExportKey.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ksp/entry_points.h"
#include "ksp/key.h"
#include "ksp/provider.h"
#include "ksp/rsa.h"
#include "log/log.h"
#include "token/aes_import.h"
#include "token/algorithms.h"
#include "token/blob.h"
#include "token/handle.h"
#include "token/key_pair_list.h"
#include "token/session.h"

namespace talvik::ksp {
namespace {

static_assert(sizeof(BCRYPT_RSAKEY_BLOB) == 24 && BCRYPT_RSAPUBLIC_MAGIC == RSA_PUBLIC_MAGIC);

struct Import {
    const BoundToken& token;
    const KspKey* importKey;  // may be null
    ByteView data;
    NCRYPT_KEY_HANDLE* phKey;

    SECURITY_STATUS deliver(std::unique_ptr<KspKey> key, const char* text) const {
        handOver(std::move(key), phKey);
        logDebug(text);
        return ERROR_SUCCESS;
    }
};

std::unique_ptr<KspKey> makePublicKey(const RsaSize& size, ByteView publicKey) {
    auto key = std::make_unique<KspKey>();
    if (!setPublicKey(*key, key->publicKeyLength, publicKey)) {
        return nullptr;
    }
    key->algorithm = size.keyType;
    key->keyLength = size.bits;
    key->isFinalized = 1;
    return key;
}

// Holds a value of at most the field's 32 bytes.
std::unique_ptr<KspKey> makeAesKey(std::uint32_t keyType, ByteView value) {
    auto key = std::make_unique<KspKey>();
    std::copy(value.begin(), value.end(), key->symmetricKey);
    key->symmetricKeyLength = static_cast<std::uint32_t>(value.size());
    key->algorithm = keyType;
    key->keyIdLength = sizeof key->keyId;
    key->isFinalized = 1;
    return key;
}

// An AES key that the token has stored; null when it refuses.
std::unique_ptr<KspKey> storeOnToken(const BoundToken& token, std::uint32_t keyType, ByteView value) {
    const std::optional<TalvikSymmetricKey> record = storeAesKey(token.deviceId, value, keyType, token.libraryContext);
    if (!record) {
        return nullptr;
    }
    std::unique_ptr<KspKey> key = makeAesKey(keyType, value);
    describeStoredKey(*key, *record);
    return key;
}

SECURITY_STATUS importRsaPublicKey(const Import& import) {
    BlobCursor cursor(import.data);
    const auto header = cursor.read<BCRYPT_RSAKEY_BLOB>();
    if (!header) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small");
    }
    if (header->Magic != RSA_PUBLIC_MAGIC) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB invalid magic");
    }
    const bool hasExponent = cursor.take(header->cbPublicExp).has_value();
    const auto modulus = cursor.take(header->cbModulus);
    if (!hasExponent || !modulus) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB data too small for key material");
    }
    const RsaSize* const size = findRsaSize(header->BitLength);
    if (size == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size: ", header->BitLength);
    }
    std::unique_ptr<KspKey> key = makePublicKey(*size, *modulus);
    if (key == nullptr) {
        return fail(NTE_BAD_KEY, "KSPImportKey: BCRYPT_RSAPUBLIC_BLOB modulus too long: ", modulus->size());
    }
    handOver(std::move(key), import.phKey);
    logDebug("KSP: RSA public key imported, bits=", size->bits);
    return ERROR_SUCCESS;
}

SECURITY_STATUS importLegacyPublicKey(const Import& import) {
    BlobCursor cursor(import.data);
    const auto header = cursor.read<PublicKeyBlobHeader>();
    if (!header) {
        return fail(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for header");
    }
    if (header->key.magic != RSA_PUBLIC_MAGIC) {
        return fail(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB invalid magic");
    }
    const auto modulus = cursor.take(header->key.bitlen / 8);
    if (!modulus) {
        return fail(NTE_BAD_DATA, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB data too small for modulus");
    }
    const std::optional<Bytes> der = derOfBlobKey(*modulus, header->key.pubexp, "KSP: Public exponent : ");
    if (!der) {
        return fail(NTE_NO_MEMORY, "KSPImportKey: LEGACY_RSAPUBLIC_BLOB failed to allocate modulus buffer");
    }
    const RsaSize* const size = findRsaSize(header->key.bitlen);
    if (size == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported RSA key size");
    }
    std::unique_ptr<KspKey> key = makePublicKey(*size, *der);
    key->keyIdLength = sizeof key->keyId;
    return import.deliver(std::move(key), "KSP: Legacy RSA public key imported successfully");
}

SECURITY_STATUS importKeyData(const Import& import) {
    BlobCursor cursor(import.data);
    const auto header = cursor.read<BCRYPT_KEY_DATA_BLOB_HEADER>();
    if (!header) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for header");
    }
    if (header->dwMagic != BCRYPT_KEY_DATA_BLOB_MAGIC) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB invalid magic");
    }
    const auto value = cursor.take(header->cbKeyData);
    if (!value) {
        return fail(NTE_BAD_DATA, "KSPImportKey: BCRYPT_KEY_DATA_BLOB data too small for key material");
    }
    const AesLength* const length = findAesLength(value->size());
    if (length == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported key size for BCRYPT_KEY_DATA_BLOB: ", value->size());
    }
    std::unique_ptr<KspKey> key = storeOnToken(import.token, length->keyType, *value);
    if (key == nullptr) {
        return fail(NTE_BAD_TYPE, "KSP: BCRYPT_KEY_DATA_BLOB import failed");
    }
    return import.deliver(std::move(key), "KSP: BCRYPT_KEY_DATA_BLOB imported successfully (AES)");
}

SECURITY_STATUS importWrappedKey(const Import& import) {
    logDebug("KSP: BCRYPT_OPAQUE_KEY_BLOB: wrapped key length = ", import.data.size());
    const BoundToken& token = import.token;
    LibraryBuffer unwrapped(import.data.size());
    const auto kek = unwrapWithTokenKey(token.deviceId, import.data, unwrapped, token.libraryContext);
    if (!kek) {
        return fail(NTE_BAD_KEY, "KSP: Failed to unwrap BCRYPT_OPAQUE_KEY_BLOB with any available KEK");
    }
    logDebug("KSP: Successfully unwrapped key with KEK: ", HexBytes{kek->data(), static_cast<int>(kek->size())});
    const ByteView value = unwrapped.view();
    const std::uint32_t keyType = value.size() == 16 ? TALVIK_KEY_AES_128 : TALVIK_KEY_AES_256;
    std::unique_ptr<KspKey> key =
        value.size() <= sizeof KspKey::symmetricKey ? storeOnToken(token, keyType, value) : nullptr;
    if (key == nullptr) {
        return fail(NTE_BAD_TYPE, "KSP: Import of unwrapped AES key failed");
    }
    return import.deliver(std::move(key), "KSP: BCRYPT_OPAQUE_KEY_BLOB imported successfully");
}

// Under the PIN that is held, if any: an import asks for none.
SECURITY_STATUS importEncryptedKey(const Import& import) {
    const KspKey& importKey = *import.importKey;
    const std::string& deviceId = import.token.deviceId;
    logDebug("KSP: Input key id : ", HexBytes{importKey.keyId, sizeof importKey.keyId});
    LibraryBuffer plaintext(largestRsaResult);
    const bool decrypted =
        !isTooLong(import.data) &&
        talvik_decrypt(deviceId.c_str(), importKey.keyId, getDevicePassword(deviceId).c_str(), import.data.data(),
                       lengthOf(import.data), plaintext.bytesOut(), plaintext.lengthOut(), importKey.storageFlag != 0,
                       import.token.libraryContext) == TALVIK_STATUS_OK;
    if (!decrypted || !plaintext.isHonest()) {
        return fail(NTE_BAD_DATA, "KSP: Encrypted key decryption failed");
    }
    const ByteView value = plaintext.view();
    const AesLength* const length = findAesLength(value.size());
    if (length == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported decrypted key length: ", value.size());
    }
    return import.deliver(makeAesKey(length->keyType, value), "KSP: Encrypted key imported successfully");
}

struct ImportedBlob {
    std::wstring_view type;
    SECURITY_STATUS (*import)(const Import&);
};

constexpr ImportedBlob importedBlobs[] = {
    {BCRYPT_RSAPUBLIC_BLOB, importRsaPublicKey},    {BCRYPT_PUBLIC_KEY_BLOB, importRsaPublicKey},
    {BCRYPT_OPAQUE_KEY_BLOB, importWrappedKey},     {BCRYPT_KEY_DATA_BLOB, importKeyData},
    {LEGACY_RSAPUBLIC_BLOB, importLegacyPublicKey},
};

SECURITY_STATUS importKey(LPCWSTR pszBlobType, const Import& import) {
    if (pszBlobType == nullptr || import.phKey == nullptr || import.data.data() == nullptr || import.data.empty()) {
        return fail(NTE_INVALID_PARAMETER, "KSPImportKey: invalid parameters");
    }
    const std::wstring_view type = pszBlobType;
    if (const ImportedBlob* const blob = findRow(importedBlobs, &ImportedBlob::type, type)) {
        return blob->import(import);
    }
    if (import.importKey != nullptr) {
        return importEncryptedKey(import);
    }
    if (type == NCRYPT_OPAQUETRANSPORT_BLOB || type == NCRYPT_PKCS8_PRIVATE_KEY_BLOB) {
        return fail(NTE_BAD_KEY, "KSP: Encrypted key import requires import key handle");
    }
    return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for import");
}

// What the token says of a key whose handle carries no public key.
void fetchPublicKey(const BoundToken& token, KspKey& key) {
    const KeyPairList records(token.deviceId, token.libraryContext);
    const auto found =
        std::ranges::find_if(records, [&](const TalvikKeyPair& record) { return equalBytes(record.keyId, key.keyId); });
    if (found != records.end()) {
        setPublicKey(key, key.publicKeyLength, talvik::publicKeyOf(*found));
    }
}

template <class Header>
Bytes blobBeginningWith(const Header& header) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&header);
    return {bytes, bytes + sizeof header};
}

// The held bytes are written as they are: DER in the place of the modulus, where that is what the key holds.
SECURITY_STATUS exportRsaPublicKey(ByteView publicKey, Output out) {
    const auto length = static_cast<ULONG>(publicKey.size());
    const BCRYPT_RSAKEY_BLOB header = {RSA_PUBLIC_MAGIC, length * 8, sizeof DEFAULT_EXPONENT_BYTES, length, 0, 0};
    Bytes blob = blobBeginningWith(header);
    append(blob, DEFAULT_EXPONENT_BYTES);
    append(blob, publicKey);
    const SECURITY_STATUS answered =
        answer(blob, out, "KSPExportKey: BCRYPT_RSAPUBLIC_BLOB output buffer too small, required=");
    if (answered == ERROR_SUCCESS && !out.isSizeQuery()) {
        logDebug("KSP: Public key exported, bits=", header.BitLength);
    }
    return answered;
}

SECURITY_STATUS exportLegacyPublicKey(ByteView publicKey, Output out) {
    Bytes blob = blobBeginningWith(publicKeyBlobHeader(CALG_RSA_KEYX, publicKey.size()));
    blob.insert(blob.end(), publicKey.rbegin(), publicKey.rend());
    return answer(blob, out, "KSPExportKey: LEGACY_RSAPUBLIC_BLOB output buffer too small, required=");
}

struct ExportedBlob {
    std::wstring_view type;
    SECURITY_STATUS (*write)(ByteView publicKey, Output out);
};

constexpr ExportedBlob exportedBlobs[] = {
    {BCRYPT_RSAPUBLIC_BLOB, exportRsaPublicKey},
    {BCRYPT_PUBLIC_KEY_BLOB, exportRsaPublicKey},
    {LEGACY_RSAPUBLIC_BLOB, exportLegacyPublicKey},
};

SECURITY_STATUS exportKey(const BoundToken& token, KspKey* key, LPCWSTR pszBlobType, Output out) {
    if (key == nullptr || pszBlobType == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPExportKey: key handle, pszBlobType, or pcbResult is null");
    }
    const std::wstring_view type = pszBlobType;
    if (type == BCRYPT_PRIVATE_KEY_BLOB || type == LEGACY_RSAPRIVATE_BLOB) {
        return fail(NTE_NOT_SUPPORTED, "KSPExportKey: private key export not supported");
    }
    const ExportedBlob* const blob = findRow(exportedBlobs, &ExportedBlob::type, type);
    if (blob == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for export");
    }
    if (key->publicKeyLength == 0) {
        fetchPublicKey(token, *key);
    }
    if (key->publicKeyLength == 0) {
        return fail(NTE_BAD_KEY, "KSP: No public key data available for export");
    }
    return blob->write(publicKeyOf(*key), out);
}

}  // namespace
}  // namespace talvik::ksp

using talvik::ksp::BoundToken;
using talvik::ksp::keyOf;
using talvik::ksp::tokenEntryPoint;

SECURITY_STATUS WINAPI KSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc*, NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD) {
    return tokenEntryPoint("KSPImportKey", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::importKey(pszBlobType, {token, keyOf(hImportKey), {pbData, cbData}, phKey});
    });
}

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE,
                                    LPCWSTR pszBlobType, NCryptBufferDesc*, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult, DWORD) {
    return tokenEntryPoint("KSPExportKey", hProvider, [=](const BoundToken& token) {
        return talvik::ksp::exportKey(token, keyOf(hKey), pszBlobType, {pbOutput, cbOutput, pcbResult});
    });
}
