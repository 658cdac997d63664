// Decryption under a password: PBES2 (RFC 8018) and the schemes of PKCS #12 (RFC 7292).
#include <windows.h>

#include <algorithm>

#include "der_text.h"
#include "gcrypt_objects.h"
#include "private_key_file.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;

constexpr unsigned long mostIterations = 10'000'000;

struct CipherScheme {
    const char* oid;
    int cipher;  // libgcrypt's number
    std::size_t keyLength;
    std::size_t blockLength;
};
constexpr CipherScheme pbes2Ciphers[] = {
    {"2.16.840.1.101.3.4.1.2", GCRY_CIPHER_AES128, 16, 16},
    {"2.16.840.1.101.3.4.1.22", GCRY_CIPHER_AES192, 24, 16},
    {"2.16.840.1.101.3.4.1.42", GCRY_CIPHER_AES256, 32, 16},
    {"1.2.840.113549.3.7", GCRY_CIPHER_3DES, 24, 8},
};
constexpr CipherScheme pkcs12Ciphers[] = {
    {"1.2.840.113549.1.12.1.3", GCRY_CIPHER_3DES, 24, 8},
    {"1.2.840.113549.1.12.1.6", GCRY_CIPHER_RFC2268_40, 5, 8},
};
constexpr struct {
    const char* oid;
    int digest;  // libgcrypt's number
} pseudoRandomFunctions[] = {
    {"1.2.840.113549.2.7", GCRY_MD_SHA1},
    {"1.2.840.113549.2.9", GCRY_MD_SHA256},
    {"1.2.840.113549.2.10", GCRY_MD_SHA384},
    {"1.2.840.113549.2.11", GCRY_MD_SHA512},
};
constexpr char oidPbes2[] = "1.2.840.113549.1.5.13";
constexpr char oidPbkdf2[] = "1.2.840.113549.1.5.12";

template <class Table>
auto* entryOf(const Table& table, ByteView oid) {
    const auto* found =
        std::ranges::find_if(table, [oid](const auto& row) { return std::ranges::equal(derObjectId(row.oid), oid); });
    return found == std::end(table) ? nullptr : found;
}

template <class Entry>
const Entry& known(const Entry* entry) {
    if (entry == nullptr) {
        throw TokenError(Status::Unsupported, "it is encrypted by a scheme that is not supported");
    }
    return *entry;
}

// The padding is all that tells a wrong password here.
SecretBytes decrypt(const CipherScheme& scheme, ByteView key, ByteView vector, ByteView ciphertext) {
    gcry_cipher_hd_t opened = nullptr;
    check(gcry_cipher_open(&opened, scheme.cipher, GCRY_CIPHER_MODE_CBC, 0));
    const Cipher cipher(opened);
    require(vector.size() == scheme.blockLength && !ciphertext.empty() && ciphertext.size() % scheme.blockLength == 0,
            Status::BadData);
    gcry_error_t weak = gcry_cipher_setkey(opened, key.data(), key.size());
    check(gcry_err_code(weak) == GPG_ERR_WEAK_KEY ? 0 : weak);
    check(gcry_cipher_setiv(opened, vector.data(), vector.size()));
    SecretBytes plaintext(ciphertext.size());
    check(gcry_cipher_decrypt(opened, plaintext.data(), plaintext.size(), ciphertext.data(), ciphertext.size()));
    const unsigned char padding = plaintext.back();
    const bool isPadded = padding >= 1 && padding <= scheme.blockLength &&
                          std::all_of(plaintext.end() - padding, plaintext.end(),
                                      [padding](unsigned char byte) { return byte == padding; });
    if (!isPadded) {
        throw TokenError(Status::WrongPin, "the password is wrong");
    }
    plaintext.resize(plaintext.size() - padding);
    return plaintext;
}

SecretBytes decryptPbes2(DerReader parameters, ByteView ciphertext, const std::string& password) {
    DerReader derivation = parameters.enter(derSequence);
    DerReader scheme = parameters.enter(derSequence);
    require(std::ranges::equal(derivation.read().whole, derObjectId(oidPbkdf2)), Status::Unsupported);
    DerReader pbkdf2 = derivation.enter(derSequence);
    const ByteView salt = pbkdf2.read(derOctetString);
    const unsigned long iterations = iterationsFrom(pbkdf2.read(derInteger));
    if (pbkdf2.nextIs(derInteger)) {
        pbkdf2.read();  // the key's length follows from the cipher
    }
    int digest = GCRY_MD_SHA1;
    if (!pbkdf2.atEnd()) {
        digest = known(entryOf(pseudoRandomFunctions, pbkdf2.enter(derSequence).read().whole)).digest;
    }
    const CipherScheme& cipher = known(entryOf(pbes2Ciphers, scheme.read().whole));
    const ByteView vector = scheme.read(derOctetString);
    SecretBytes key(cipher.keyLength);
    startGcrypt();
    check(gcry_kdf_derive(password.data(), password.size(), GCRY_KDF_PBKDF2, digest, salt.data(), salt.size(),
                          iterations, key.size(), key.data()));
    return decrypt(cipher, key, vector, ciphertext);
}

SecretBytes decryptPkcs12(const CipherScheme& cipher, DerReader parameters, ByteView ciphertext,
                          const std::string& password) {
    const ByteView salt = parameters.read(derOctetString);
    const unsigned long iterations = iterationsFrom(parameters.read(derInteger));
    const SecretBytes key = pkcs12Derive(GCRY_MD_SHA1, password, salt, iterations, 1, cipher.keyLength);
    const SecretBytes vector = pkcs12Derive(GCRY_MD_SHA1, password, salt, iterations, 2, cipher.blockLength);
    return decrypt(cipher, key, vector, ciphertext);
}

// As big-endian UTF-16 with two zeros at the end.
SecretBytes pkcs12Password(const std::string& password) {
    SecretBytes bytes;
    for (const wchar_t unit : wide(password)) {
        bytes.insert(bytes.end(), {static_cast<unsigned char>(unit >> 8), static_cast<unsigned char>(unit & 0xFF)});
    }
    bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

// `source` over and over, up to a whole number of blocks.
void appendRepeated(SecretBytes& bytes, ByteView source, std::size_t block) {
    const std::size_t length = (source.size() + block - 1) / block * block;
    for (std::size_t i = 0; i < length; ++i) {
        bytes.push_back(source[i % source.size()]);
    }
}

// Each block of `bytes` becomes itself plus `addend` plus 1, as big-endian numbers.
void addToBlocks(SecretBytes& bytes, const SecretBytes& addend) {
    const std::size_t block = addend.size();
    for (std::size_t at = 0; at < bytes.size(); at += block) {
        unsigned carry = 1;
        for (std::size_t i = block; i-- > 0;) {
            carry += bytes[at + i] + addend[i];
            bytes[at + i] = static_cast<unsigned char>(carry & 0xFF);
            carry >>= 8;
        }
    }
}

}  // namespace

unsigned long iterationsFrom(ByteView integer) {
    unsigned long value = 0;
    require(integer.size() <= 4, Status::BadData);
    for (const unsigned char byte : integer) {
        value = value << 8 | byte;
    }
    require(value >= 1 && value <= mostIterations, Status::BadData);
    return value;
}

SecretBytes pkcs12Derive(int digest, const std::string& password, ByteView salt, unsigned long iterations,
                         unsigned char purpose, std::size_t length) {
    startGcrypt();
    const std::size_t size = gcry_md_get_algo_dlen(digest), block = size > 32 ? 128 : 64;
    require(!salt.empty(), Status::BadData);
    SecretBytes input;
    appendRepeated(input, salt, block);
    appendRepeated(input, pkcs12Password(password), block);
    SecretBytes derived;
    while (derived.size() < length) {
        SecretBytes first(block, purpose);
        first.insert(first.end(), input.begin(), input.end());
        SecretBytes hash(size);
        gcry_md_hash_buffer(digest, hash.data(), first.data(), first.size());
        for (unsigned long i = 1; i < iterations; ++i) {
            const SecretBytes before = hash;
            gcry_md_hash_buffer(digest, hash.data(), before.data(), before.size());
        }
        derived.insert(derived.end(), hash.begin(), hash.end());
        SecretBytes addend;
        for (std::size_t i = 0; i < block; ++i) {
            addend.push_back(hash[i % size]);
        }
        addToBlocks(input, addend);
    }
    derived.resize(length);
    return derived;
}

SecretBytes decryptWithPassword(ByteView algorithm, ByteView ciphertext, const std::string& password) {
    DerReader identifier = DerReader(algorithm).enter(derSequence);
    const ByteView oid = identifier.read().whole;
    DerReader parameters = identifier.enter(derSequence);
    if (std::ranges::equal(oid, derObjectId(oidPbes2))) {
        return decryptPbes2(parameters, ciphertext, password);
    }
    return decryptPkcs12(known(entryOf(pkcs12Ciphers, oid)), parameters, ciphertext, password);
}

}  // namespace talvik_tool
