#include "gcrypt_objects.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include "status.h"

namespace virtual_token {
namespace {

constexpr std::size_t nonceLength = 12;
constexpr std::size_t tagLength = 16;

// The library writes hints about the machine's disks to the standard error of whatever program has loaded us.
void silenceLog() {
#if GCRYPT_VERSION_NUMBER < 0x010B00
    gcry_set_log_handler([](void*, int, const char*, va_list) {}, nullptr);
#else
    gpgrt_log_set_sink("NUL", nullptr, -1);  // since 1.11 it logs through libgpg-error and asks no handler
#endif
}

// The library wipes the numbers that it releases but not the expressions, in which padded plaintexts and private keys
// travel. Whatever it releases is wiped here.
void* allocate(std::size_t size) {
    return std::malloc(size);
}

int isSecure(const void*) {
    return 0;
}

void release(void* memory) {
    if (memory != nullptr) {
        SecureZeroMemory(memory, _msize(memory));
        std::free(memory);
    }
}

void* reallocate(void* memory, std::size_t size) {
    void* const moved = std::malloc(size);
    if (moved != nullptr && memory != nullptr) {
        std::memcpy(moved, memory, std::min(size, _msize(memory)));
        release(memory);
    }
    return moved;
}

bool initialise() {
    // The library's usual generator, once it was drawn on, stirs its pool whenever a cipher or a digest is opened: 450
    // us each time under Wine. This one is the HMAC generator of SP 800-90A, with a seed from the same source. It has
    // to be chosen before anything else is asked of the library.
    check(gcry_control(GCRYCTL_SET_PREFERRED_RNG_TYPE, GCRY_RNG_TYPE_FIPS));
    gcry_set_allocation_handler(allocate, allocate, isSecure, reallocate, release);
    require(gcry_check_version(GCRYPT_VERSION) != nullptr, Status::InternalError);
    silenceLog();
    // The locked memory pool has one lock for all threads and room for few keys; freed numbers are wiped without it.
    check(gcry_control(GCRYCTL_DISABLE_SECMEM, 0));
    check(gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0));
    int generator = 0;
    check(gcry_control(GCRYCTL_GET_CURRENT_RNG_TYPE, &generator));
    require(generator == GCRY_RNG_TYPE_FIPS, Status::InternalError);
    return true;
}

Cipher openGcm(ByteView key, ByteView nonce, std::string_view context) {
    Cipher cipher = openCipher(key, GCRY_CIPHER_MODE_GCM);
    check(gcry_cipher_setiv(cipher.get(), nonce.data(), nonce.size()));
    check(gcry_cipher_authenticate(cipher.get(), context.data(), context.size()));
    return cipher;
}

}  // namespace

void startGcrypt() {
    static const bool ready = initialise();
    static_cast<void>(ready);
}

void check(gcry_error_t error) {
    if (error != 0) {
        throw TokenError(gcry_err_code(error) == GPG_ERR_ENOMEM ? Status::OutOfMemory : Status::InternalError,
                         gcry_strerror(error));
    }
}

Integer newInteger() {
    startGcrypt();
    return Integer(gcry_mpi_new(0));
}

Integer integerFrom(ByteView bigEndian) {
    startGcrypt();
    gcry_mpi_t number = nullptr;
    check(gcry_mpi_scan(&number, GCRYMPI_FMT_USG, bigEndian.data(), bigEndian.size(), nullptr));
    return Integer(number);
}

Integer integerIn(const Expression& expression, const char* token) {
    const Expression part(gcry_sexp_find_token(expression.get(), token, 0));
    Integer number(part ? gcry_sexp_nth_mpi(part.get(), 1, GCRYMPI_FMT_USG) : nullptr);
    require(number != nullptr, Status::InternalError);
    return number;
}

SecretBytes bytesOf(const Integer& number, std::size_t width) {
    const std::size_t length = (gcry_mpi_get_nbits(number.get()) + 7) / 8;
    require(length <= width, Status::InternalError);
    SecretBytes bytes(width);
    check(gcry_mpi_print(GCRYMPI_FMT_USG, bytes.data() + (width - length), length, nullptr, number.get()));
    return bytes;
}

Digest openDigest(int algorithm) {
    startGcrypt();
    gcry_md_hd_t digest = nullptr;
    check(gcry_md_open(&digest, algorithm, 0));
    return Digest(digest);
}

Cipher openCipher(ByteView key, int mode) {
    startGcrypt();
    const int algorithm = key.size() == 16   ? GCRY_CIPHER_AES128
                          : key.size() == 24 ? GCRY_CIPHER_AES192
                          : key.size() == 32 ? GCRY_CIPHER_AES256
                                             : 0;
    require(algorithm != 0, Status::BadKey);
    gcry_cipher_hd_t cipher = nullptr;
    check(gcry_cipher_open(&cipher, algorithm, mode, 0));
    Cipher owned(cipher);
    check(gcry_cipher_setkey(cipher, key.data(), key.size()));
    return owned;
}

Bytes seal(ByteView key, ByteView plaintext, std::string_view context) {
    Bytes sealed = randomBytes(nonceLength);
    const Cipher cipher = openGcm(key, sealed, context);
    sealed.resize(nonceLength + plaintext.size() + tagLength);
    unsigned char* ciphertext = sealed.data() + nonceLength;
    check(gcry_cipher_encrypt(cipher.get(), ciphertext, plaintext.size(), plaintext.data(), plaintext.size()));
    check(gcry_cipher_gettag(cipher.get(), ciphertext + plaintext.size(), tagLength));
    return sealed;
}

SecretBytes unseal(ByteView key, ByteView sealed, std::string_view context) {
    require(sealed.size() >= nonceLength + tagLength, Status::BadData);
    const Cipher cipher = openGcm(key, sealed.first(nonceLength), context);
    const ByteView ciphertext = sealed.subspan(nonceLength, sealed.size() - nonceLength - tagLength);
    SecretBytes plaintext(ciphertext.size());
    check(gcry_cipher_decrypt(cipher.get(), plaintext.data(), plaintext.size(), ciphertext.data(), ciphertext.size()));
    const ByteView tag = sealed.last(tagLength);
    require(gcry_cipher_checktag(cipher.get(), tag.data(), tag.size()) == 0, Status::BadData);
    return plaintext;
}

}  // namespace virtual_token
