#include "fuzz/provider_fuzz.h"

#include <cstdio>
#include <cstdlib>

#include "csp/hash.h"
#include "csp/key.h"
#include "ksp/key.h"

namespace {

Guarded name(Input& input, std::span<const wchar_t* const> known) {
    const std::size_t choice = input.below(known.size() + 1);
    if (choice == known.size()) {
        return Guarded::text(input.takeBytes(input.below(64)), sizeof(wchar_t));
    }
    const std::wstring_view text = known[choice];
    return Guarded::text({reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * sizeof(wchar_t)},
                         sizeof(wchar_t));
}

void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "broken record: %s\n", what);
        std::abort();
    }
}

}  // namespace

HCRYPTPROV newContext(const char* container, DWORD flags) {
    static int table;
    HCRYPTPROV context = 0;
    CPAcquireContext(&context, container, flags, reinterpret_cast<VTableProvStruc*>(&table));
    return context;
}

HCRYPTPROV tokenContext() {
    static const HCRYPTPROV context = newContext(nullptr, 0);
    return context;
}

NCRYPT_PROV_HANDLE tokenProvider() {
    static const NCRYPT_PROV_HANDLE provider = [] {
        NCRYPT_PROV_HANDLE opened = 0;
        KSPOpenProvider(&opened, L"", 0);
        return opened;
    }();
    return provider;
}

Guarded propertyName(Input& input) {
    static constexpr const wchar_t* known[] = {NCRYPT_NAME_PROPERTY,
                                               NCRYPT_ALGORITHM_PROPERTY,
                                               NCRYPT_ALGORITHM_GROUP_PROPERTY,
                                               NCRYPT_LENGTH_PROPERTY,
                                               NCRYPT_LENGTHS_PROPERTY,
                                               NCRYPT_KEY_USAGE_PROPERTY,
                                               NCRYPT_EXPORT_POLICY_PROPERTY,
                                               NCRYPT_BLOCK_LENGTH_PROPERTY,
                                               NCRYPT_UNIQUE_NAME_PROPERTY,
                                               NCRYPT_PROVIDER_HANDLE_PROPERTY,
                                               NCRYPT_CERTIFICATE_PROPERTY,
                                               NCRYPT_PIN_PROPERTY,
                                               NCRYPT_WINDOW_HANDLE_PROPERTY,
                                               NCRYPT_IMPL_TYPE_PROPERTY,
                                               NCRYPT_USE_COUNT_PROPERTY,
                                               L"ChainingMode",
                                               L"IV"};
    return name(input, known);
}

Guarded blobTypeName(Input& input) {
    static constexpr const wchar_t* known[] = {
        BCRYPT_RSAPUBLIC_BLOB,      BCRYPT_PUBLIC_KEY_BLOB, BCRYPT_OPAQUE_KEY_BLOB, BCRYPT_KEY_DATA_BLOB,
        LEGACY_RSAPUBLIC_BLOB,      LEGACY_RSAPRIVATE_BLOB, L"OpaqueTransport",     L"PKCS8_PRIVATEKEY",
        BCRYPT_RSAFULLPRIVATE_BLOB, L"SimpleBlob"};
    return name(input, known);
}

Guarded algorithmName(Input& input) {
    static constexpr const wchar_t* known[] = {L"RSA", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521", L"SHA256"};
    return name(input, known);
}

void checkCspKey(HCRYPTKEY handle) {
    const talvik::csp::KEY_HANDLE& key = *talvik::csp::keyOf(handle);
    require(key.keyIdLen <= sizeof key.keyId, "keyIdLen");
    require(key.keyAliasLen <= sizeof key.keyAlias, "keyAliasLen");
    require(key.label[sizeof key.label - 1] == 0, "label");
    require(key.publicKeyLen <= sizeof key.publicKey, "publicKeyLen");
    require(key.aesKeyLen >= 0 && key.aesKeyLen <= static_cast<int>(sizeof key.aesKey), "aesKeyLen");
}

void checkCngKey(NCRYPT_KEY_HANDLE handle) {
    const talvik::ksp::KspKey& key = *talvik::ksp::keyOf(handle);
    require(key.keyIdLength <= sizeof key.keyId, "keyIdLength");
    require(key.keyAliasLength <= sizeof key.keyAlias, "keyAliasLength");
    require(key.publicKeyLength <= sizeof key.publicKey, "publicKeyLength");
    require(key.symmetricKeyLength <= sizeof key.symmetricKey, "symmetricKeyLength");
}

void checkHash(HCRYPTHASH handle) {
    const talvik::csp::HASH_CONTEXT& hash = *talvik::csp::hashOf(handle);
    require(hash.hashValueLen <= sizeof hash.hashValue, "hashValueLen");
    require(hash.signKeyIdLen <= sizeof hash.signKeyId, "signKeyIdLen");
}
