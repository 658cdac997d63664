// Reading the device library's records. A length that a record reports is never trusted past its field: a record that
// lies counts as carrying the whole field.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "token/device_library.h"
#include "token/key_encoding.h"

namespace talvik {

// The key pair's container name: the 32-character upper-case hex text of its identifier.
std::string containerNameOf(const TalvikKeyPair& key);
bool hasContainerName(const TalvikKeyPair& key, std::string_view name);

ByteView publicKeyOf(const TalvikKeyPair& key);
ByteView aliasOf(const TalvikKeyPair& key);
ByteView aliasOf(const TalvikCertificate& certificate);
ByteView derOf(const TalvikCertificate& certificate);
std::string_view labelOf(const TalvikKeyPair& key);
std::string_view labelOf(const TalvikCertificate& certificate);
std::string_view labelOf(const TalvikSymmetricKey& key);
std::string_view nameOf(const TalvikSymmetricKey& key);

// What a key's usage code allows.
bool usageSigns(std::uint32_t usage);
bool usageExchanges(std::uint32_t usage);
bool canSign(const TalvikKeyPair& key);
bool canExchange(const TalvikKeyPair& key);

bool equalBytes(ByteView left, ByteView right);

}  // namespace talvik
