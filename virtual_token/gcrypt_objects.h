// libgcrypt's objects, owned; its errors, thrown.
#pragma once

#include <gcrypt.h>
#include <memory>

#include "bytes.h"

namespace virtual_token {

struct GcryptRelease {
    void operator()(gcry_sexp_t expression) const { gcry_sexp_release(expression); }
    void operator()(gcry_mpi_t number) const { gcry_mpi_release(number); }
    void operator()(gcry_cipher_hd_t cipher) const { gcry_cipher_close(cipher); }
    void operator()(gcry_md_hd_t digest) const { gcry_md_close(digest); }
};

using Expression = std::unique_ptr<gcry_sexp, GcryptRelease>;
using Integer = std::unique_ptr<gcry_mpi, GcryptRelease>;
using Cipher = std::unique_ptr<gcry_cipher_handle, GcryptRelease>;
using Digest = std::unique_ptr<gcry_md_handle, GcryptRelease>;

// Prepares libgcrypt on the first call; every path to the library goes through one of the makers below, which call it.
void startGcrypt();

// Throws TokenError: OutOfMemory for that, InternalError for any other error.
void check(gcry_error_t error);

template <class... Arguments>
Expression buildExpression(const char* format, Arguments... arguments) {
    startGcrypt();
    gcry_sexp_t expression = nullptr;
    check(gcry_sexp_build(&expression, nullptr, format, arguments...));
    return Expression(expression);
}

Integer newInteger();
Integer integerFrom(ByteView bigEndian);
Integer integerIn(const Expression& expression, const char* token);
SecretBytes bytesOf(const Integer& number, std::size_t width);  // big-endian, zeros in front

Digest openDigest(int algorithm);
Cipher openCipher(ByteView key, int mode);  // AES with the key's length

// AES-256-GCM with a fresh nonce: nonce (12 bytes), ciphertext, tag (16). `context` binds it to where it belongs.
Bytes seal(ByteView key, ByteView plaintext, std::string_view context);
// Throws TokenError(BadData) when the key, the context or the sealed bytes are not the ones that sealed it.
SecretBytes unseal(ByteView key, ByteView sealed, std::string_view context);

}  // namespace virtual_token
