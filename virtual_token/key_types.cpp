#include "key_types.h"

#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <gcrypt.h>
#include <iterator>

#include "token/device_library.h"

namespace virtual_token {
namespace {

constexpr std::string_view oidP256("\x2A\x86\x48\xCE\x3D\x03\x01\x07", 8);
constexpr std::string_view oidP384("\x2B\x81\x04\x00\x22", 5);
constexpr std::string_view oidP521("\x2B\x81\x04\x00\x23", 5);

constexpr KeyType keyTypes[] = {
    {TALVIK_KEY_RSA_1024, "RSA-1024", 1024, nullptr, 0, {}},
    {TALVIK_KEY_RSA_2048, "RSA-2048", 2048, nullptr, 0, {}},
    {TALVIK_KEY_RSA_3072, "RSA-3072", 3072, nullptr, 0, {}},
    {TALVIK_KEY_RSA_4096, "RSA-4096", 4096, nullptr, 0, {}},
    {TALVIK_KEY_EC_P256, "P-256", 256, "NIST P-256", 32, oidP256},
    {TALVIK_KEY_EC_P384, "P-384", 384, "NIST P-384", 48, oidP384},
    {TALVIK_KEY_EC_P521, "P-521", 521, "NIST P-521", 66, oidP521},
};

constexpr AesKeyType aesKeyTypes[] = {
    {TALVIK_KEY_AES_128, "AES-128", 16},
    {TALVIK_KEY_AES_192, "AES-192", 24},
    {TALVIK_KEY_AES_256, "AES-256", 32},
};

constexpr DigestType digestTypes[] = {
    {TALVIK_HASH_SHA1, GCRY_MD_SHA1, "sha1", 20, BCRYPT_SHA1_ALGORITHM},
    {TALVIK_HASH_SHA256, GCRY_MD_SHA256, "sha256", 32, BCRYPT_SHA256_ALGORITHM},
    {TALVIK_HASH_SHA384, GCRY_MD_SHA384, "sha384", 48, BCRYPT_SHA384_ALGORITHM},
    {TALVIK_HASH_SHA512, GCRY_MD_SHA512, "sha512", 64, BCRYPT_SHA512_ALGORITHM},
};

template <class Table, class Test>
auto find(const Table& table, Test matches) -> decltype(std::begin(table)) {
    const auto found = std::find_if(std::begin(table), std::end(table), matches);
    return found == std::end(table) ? nullptr : found;
}

}  // namespace

const KeyType* keyTypeOf(std::uint32_t code) {
    return find(keyTypes, [code](const KeyType& type) { return type.code == code; });
}

const KeyType* keyTypeNamed(std::string_view name) {
    return find(keyTypes, [name](const KeyType& type) { return type.name == name; });
}

const KeyType* keyTypeOfCurve(ByteView oid) {
    return find(keyTypes,
                [oid](const KeyType& type) { return !type.isRsa() && std::ranges::equal(viewOf(type.curveOid), oid); });
}

const KeyType* keyTypeOfModulus(ByteView modulus) {
    const bool isWhole = !modulus.empty() && modulus[0] >= 0x80;  // its bits are all of its bytes
    return find(keyTypes,
                [&](const KeyType& type) { return type.isRsa() && isWhole && modulus.size() * 8 == type.bits; });
}

const AesKeyType* aesKeyTypeOf(std::size_t keyLength) {
    return find(aesKeyTypes, [keyLength](const AesKeyType& type) { return type.keyLength == keyLength; });
}

bool isAesKeyType(std::uint32_t code) {
    return find(aesKeyTypes, [code](const AesKeyType& row) { return row.code == code; }) != nullptr;
}

const DigestType* digestOfCode(int code) {
    return find(digestTypes, [code](const DigestType& type) { return type.code == code; });
}

const DigestType* digestOfLength(std::size_t length) {
    return find(digestTypes, [length](const DigestType& type) { return type.length == length; });
}

}  // namespace virtual_token
