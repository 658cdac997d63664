// Key pairs straight from the device library: CryptoAPI's key generation makes RSA-2048 alone.
#pragma once

#include "e2e/surroundings.h"
#include "token/device_library.h"

namespace e2e {

// Leaves the public half in public.der and gives the container's name.
inline std::string makeKeyPair(const std::string& token, std::uint32_t keyType, std::uint32_t usage) {
    TalvikKeyPair key{};
    key.keyType = keyType;
    key.usage = usage;
    EXPECT_EQ(talvik_generateKeyPair(token.c_str(), pin, &key, nullptr), 0);
    writeRsaKey(scratch(), "public", Bytes(key.modulus, key.modulus + key.modulusLength));
    return hex(Bytes(std::begin(key.keyId), std::end(key.keyId)));
}

}  // namespace e2e
