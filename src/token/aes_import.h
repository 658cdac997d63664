// AES keys that an application brings and the token keeps.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "token/device_library.h"
#include "token/key_encoding.h"
#include "token/library_buffer.h"

namespace talvik {

// Identifier of an AES key on the token, as it is shown in the log.
using AesKeyIdentifier = std::array<unsigned char, sizeof TalvikSymmetricKey::identifier>;

// A request to the token, whose key value is wiped when it goes.
struct AesRequest {
    TalvikSymmetricKey record = {};

    ~AesRequest() { wipeValue(); }
    void wipeValue() { SecureZeroMemory(record.keyId, sizeof record.keyId); }
};

// Unwraps a key with whichever AES key on the token can: the wrapped bytes are offered, as they are, to every key of
// 128 or 256 bits in the token's order, and the first that decrypts them wins. Its identifier, with the key value in
// `unwrapped`; nothing when none can.
std::optional<AesKeyIdentifier> unwrapWithTokenKey(const std::string& deviceId, ByteView wrapped,
                                                   LibraryBuffer& unwrapped, void* reserved);

// Stores a key value on the token under the PIN that is held for the device. What the library tells of the new key,
// without its value; nothing when the token refuses or the value is longer than a request has room for.
std::optional<TalvikSymmetricKey> storeAesKey(const std::string& deviceId, ByteView value, std::uint32_t keyType,
                                              void* reserved);

}  // namespace talvik
