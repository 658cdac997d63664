#include "token/token_records.h"

#include <algorithm>

#include "log/utils.h"

namespace talvik {
namespace {

template <std::size_t Capacity>
ByteView bounded(const unsigned char (&field)[Capacity], std::uint32_t length) {
    return {field, std::min<std::size_t>(length, Capacity)};
}

template <std::size_t Capacity>
std::string_view boundedText(const char (&field)[Capacity]) {
    return {field, std::find(field, field + Capacity, '\0')};
}

}  // namespace

std::string containerNameOf(const TalvikKeyPair& key) {
    return bytesToHexString(key.keyId, sizeof key.keyId);
}

bool hasContainerName(const TalvikKeyPair& key, std::string_view name) {
    if (name.size() != 2 * sizeof key.keyId) {
        return false;
    }
    for (std::size_t i = 0; i < sizeof key.keyId; ++i) {
        if (name[2 * i] != HEX_DIGITS[key.keyId[i] >> 4] || name[2 * i + 1] != HEX_DIGITS[key.keyId[i] & 0x0F]) {
            return false;
        }
    }
    return true;
}

ByteView publicKeyOf(const TalvikKeyPair& key) {
    return bounded(key.modulus, key.modulusLength);
}

ByteView aliasOf(const TalvikKeyPair& key) {
    return bounded(key.keyAlias, key.keyAliasLength);
}

ByteView aliasOf(const TalvikCertificate& certificate) {
    return bounded(certificate.keyAlias, certificate.keyAliasLength);
}

ByteView derOf(const TalvikCertificate& certificate) {
    return bounded(certificate.der, certificate.derLength);
}

std::string_view labelOf(const TalvikKeyPair& key) {
    return boundedText(key.label);
}

std::string_view labelOf(const TalvikCertificate& certificate) {
    return boundedText(certificate.label);
}

std::string_view labelOf(const TalvikSymmetricKey& key) {
    return boundedText(key.label);
}

std::string_view nameOf(const TalvikSymmetricKey& key) {
    return boundedText(key.name);
}

bool usageSigns(std::uint32_t usage) {
    return usage == TALVIK_USAGE_SIGN || usage == TALVIK_USAGE_BOTH;
}

bool usageExchanges(std::uint32_t usage) {
    return usage == TALVIK_USAGE_EXCHANGE || usage == TALVIK_USAGE_BOTH;
}

bool canSign(const TalvikKeyPair& key) {
    return usageSigns(key.usage);
}

bool canExchange(const TalvikKeyPair& key) {
    return usageExchanges(key.usage);
}

bool equalBytes(ByteView left, ByteView right) {
    return std::ranges::equal(left, right);
}

}  // namespace talvik
