#include "token/aes_import.h"

#include <algorithm>
#include <climits>
#include <vector>

#include "token/algorithms.h"
#include "token/session.h"

namespace talvik {
namespace {

bool canUnwrap(const TalvikSymmetricKey& key) {
    const AesLength* const length = findRow(aesLengths, &AesLength::keyType, key.keyType);
    return length != nullptr && length->unwraps;
}

int boundedIdLength(const TalvikSymmetricKey& key) {
    const auto capacity = static_cast<std::int32_t>(sizeof key.keyId);
    return key.keyIdLength < 0 ? capacity : std::min(key.keyIdLength, capacity);
}

}  // namespace

std::optional<AesKeyIdentifier> unwrapWithTokenKey(const std::string& deviceId, ByteView wrapped,
                                                   LibraryBuffer& unwrapped, void* reserved) {
    if (wrapped.size() > INT_MAX) {  // the library takes a signed length
        return std::nullopt;
    }
    const std::vector<TalvikSymmetricKey> keys = talvik_getAesKeyList(deviceId.c_str(), reserved);
    for (const TalvikSymmetricKey& key : keys) {
        if (!canUnwrap(key)) {
            continue;
        }
        const int status = talvik_decrypt_aes(deviceId.c_str(), key.keyId, boundedIdLength(key), wrapped.data(),
                                              static_cast<int>(wrapped.size()), unwrapped.bytesOut(),
                                              unwrapped.lengthOut(), key.storageFlag != 0, nullptr, 0, reserved);
        if (status == TALVIK_STATUS_OK && unwrapped.isHonest()) {
            AesKeyIdentifier identifier;
            std::copy_n(key.identifier, identifier.size(), identifier.begin());
            return identifier;
        }
    }
    return std::nullopt;
}

std::optional<TalvikSymmetricKey> storeAesKey(const std::string& deviceId, ByteView value, std::uint32_t keyType,
                                              void* reserved) {
    AesRequest request;
    if (value.size() > sizeof request.record.keyId) {
        return std::nullopt;
    }
    std::copy(value.begin(), value.end(), request.record.keyId);
    request.record.keyIdLength = static_cast<std::int32_t>(value.size());
    request.record.keyType = keyType;
    const int status =
        talvik_importAesKey(deviceId.c_str(), getDevicePassword(deviceId).c_str(), &request.record, reserved);
    if (status != TALVIK_STATUS_OK) {
        return std::nullopt;
    }
    request.wipeValue();
    return request.record;
}

}  // namespace talvik
