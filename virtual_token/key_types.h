// The key types of the device-library contract and what follows from each.
#pragma once

#include <cstdint>
#include <string_view>

#include "bytes.h"

namespace virtual_token {

struct KeyType {
    std::uint32_t code;  // TalvikKeyPair::keyType
    const char* name;
    unsigned bits;
    const char* curve;             // libgcrypt's name; null for RSA
    std::size_t coordinateLength;  // bytes of r, s and each coordinate; 0 for RSA
    std::string_view curveOid;     // content of the OBJECT IDENTIFIER

    bool isRsa() const { return curve == nullptr; }
};

const KeyType* keyTypeOf(std::uint32_t code);        // null when there is none
const KeyType* keyTypeNamed(std::string_view name);  // null when there is none
const KeyType* keyTypeOfCurve(ByteView oid);         // null when there is none
const KeyType* keyTypeOfModulus(ByteView modulus);   // null when its bits, without zeros in front, are no key's size

struct AesKeyType {
    std::uint32_t code;  // TalvikSymmetricKey::keyType
    const char* name;
    std::size_t keyLength;  // bytes
};

const AesKeyType* aesKeyTypeOf(std::size_t keyLength);  // null when there is none
bool isAesKeyType(std::uint32_t code);

struct DigestType {
    int code;          // of talvik_initHash
    int algorithm;     // libgcrypt's number
    const char* name;  // libgcrypt's name
    std::size_t length;
    const wchar_t* systemName;  // BCrypt's name
};

const DigestType* digestOfCode(int code);              // null when there is none
const DigestType* digestOfLength(std::size_t length);  // null when there is none

}  // namespace virtual_token
