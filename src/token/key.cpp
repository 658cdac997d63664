#include "token/key.h"

#include <algorithm>
#include <cstring>

#include "token/token_records.h"

namespace talvik {

bool setPublicKey(TokenKey& key, std::uint32_t& length, ByteView publicKey) {
    if (publicKey.size() > sizeof key.publicKey) {
        return false;
    }
    std::copy(publicKey.begin(), publicKey.end(), key.publicKey);
    length = static_cast<std::uint32_t>(publicKey.size());
    return true;
}

void describeKeyPair(TokenKey& key, KeyLengths lengths, const TalvikKeyPair& record) {
    const ByteView alias = aliasOf(record);
    std::memcpy(key.keyId, record.keyId, sizeof key.keyId);
    lengths.keyId = sizeof key.keyId;
    std::copy(alias.begin(), alias.end(), key.keyAlias);
    lengths.keyAlias = static_cast<std::uint32_t>(alias.size());
    labelOf(record).copy(key.label, sizeof key.label);
    setPublicKey(key, lengths.publicKey, publicKeyOf(record));
}

void describeStoredKey(TokenKey& key, const TalvikSymmetricKey& record) {
    std::memcpy(key.keyId, record.identifier, sizeof key.keyId);
    labelOf(record).copy(key.label, sizeof key.label);
    key.keyUsage = record.usage;
    key.storageFlag = record.storageFlag;
}

int storeCertificate(const std::string& deviceId, const char* pin, const TokenKey& key, ByteView alias, ByteView der,
                     void* reserved) {
    TalvikCertificate record = {};
    std::memcpy(record.keyId, key.keyId, sizeof record.keyId);
    std::copy(der.begin(), der.end(), record.der);
    record.derLength = static_cast<std::uint32_t>(der.size());
    std::copy(alias.begin(), alias.end(), record.keyAlias);
    record.keyAliasLength = static_cast<std::uint32_t>(alias.size());
    std::memcpy(record.label, key.label, sizeof record.label);
    return talvik_importCertificate(deviceId.c_str(), pin, &record, reserved);
}

}  // namespace talvik
