#include "token/public_key.h"

#include <algorithm>
#include <memory>
#include <new>

#include "log/log.h"

namespace talvik {

Bytes derPublicKeyOf(ByteView publicKey, const PublicKeyTexts& texts) {
    if (isDerPublicKey(publicKey)) {
        logDebug(texts.alreadyDer);
        return {publicKey.begin(), publicKey.end()};
    }
    logDebug(texts.bareModulus);
    return derOfModulus(publicKey);
}

Bytes derOfModulus(ByteView modulus) {
    return buildRsaPublicKeyDerFromBytes(modulus, DEFAULT_EXPONENT_BYTES);
}

std::optional<Bytes> derOfBlobKey(ByteView modulus, std::uint32_t exponent, std::string_view exponentText) {
    const std::unique_ptr<unsigned char[]> bigEndian(new (std::nothrow) unsigned char[modulus.size()]);
    if (bigEndian == nullptr) {
        return std::nullopt;
    }
    std::ranges::reverse_copy(modulus, bigEndian.get());
    const Bytes exponentBytes = uintToBigEndianBytes(static_cast<std::int32_t>(exponent), 3);
    logDebug(exponentText, HexBytes{exponentBytes.data(), static_cast<int>(exponentBytes.size())});
    return buildRsaPublicKeyDerFromBytes({bigEndian.get(), modulus.size()}, exponentBytes);
}

}  // namespace talvik
