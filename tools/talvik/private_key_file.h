// Private keys and certificates in files that other programs wrote.
#pragma once

#include "asymmetric_key.h"
#include "files.h"

namespace talvik_tool {

// Asked for when a file turns out to be encrypted.
using AskPassword = std::function<std::string()>;

// The key of a PKCS #8 file, PEM or DER, encrypted (PBES2, or the older schemes of PKCS #12) or not. Throws TokenError
// with the file's name and what is wrong with it; a wrong password is WrongPin.
virtual_token::GeneratedKey readPrivateKeyFile(const std::string& name, const AskPassword& password);

// What is encrypted under a password: the algorithm is a DER AlgorithmIdentifier.
SecretBytes decryptWithPassword(ByteView algorithm, ByteView ciphertext, const std::string& password);

// The key derivation of PKCS #12 (RFC 7292, appendix B): `purpose` 1 makes a key, 2 an initial vector, 3 a MAC key.
// `digest` is libgcrypt's number.
SecretBytes pkcs12Derive(int digest, const std::string& password, ByteView salt, unsigned long iterations,
                         unsigned char purpose, std::size_t length);

unsigned long iterationsFrom(ByteView integer);  // throws TokenError(BadData) above ten million

}  // namespace talvik_tool
