// Byte strings as the tests make, compare and print them, and the pairs of numbers that keys and signatures are.
#pragma once

#include "support/openssl.h"

namespace talvik_test {

inline Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

inline Bytes reversed(const Bytes& value) {
    return {value.rbegin(), value.rend()};
}

// The same for every run; the bytes of a short one are all different.
inline Bytes pattern(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + i / 251);
    }
    return bytes;
}

inline std::string hex(const Bytes& value) {
    std::string text;
    for (const unsigned char byte : value) {
        text += {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
    }
    return text;
}

// Leaves DER of SEQUENCE { INTEGER, INTEGER }, put together by openssl, in `file`; most significant bytes first.
inline void writePair(const ScratchFolder& folder, const std::string& file, const Bytes& first, const Bytes& second) {
    folder.write("pair.cnf", bytesOf("asn1=SEQUENCE:pair\n[pair]\na=INTEGER:0x" + hex(first) + "\nb=INTEGER:0x" +
                                     hex(second) + "\n"));
    openssl(folder, "asn1parse -genconf pair.cnf -noout -out " + file);
}

// The same for r and s side by side.
inline void writeEcdsaSignature(const ScratchFolder& folder, const std::string& file, const Bytes& signature) {
    const auto middle = signature.begin() + static_cast<std::ptrdiff_t>(signature.size() / 2);
    writePair(folder, file, Bytes(signature.begin(), middle), Bytes(middle, signature.end()));
}

// Leaves an RSA public key in `name`.pem and, as SubjectPublicKeyInfo, in `name`.der.
inline void writeRsaKey(const ScratchFolder& folder, const std::string& name, const Bytes& modulus,
                        const Bytes& exponent = {1, 0, 1}) {
    writePair(folder, "rsa.der", modulus, exponent);
    openssl(folder, "rsa -RSAPublicKey_in -inform DER -in rsa.der -pubout -out " + name + ".pem");
    openssl(folder, "pkey -pubin -in " + name + ".pem -outform DER -out " + name + ".der");
}

}  // namespace talvik_test
