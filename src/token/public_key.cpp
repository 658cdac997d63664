#include "token/public_key.h"

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
    return buildRsaPublicKeyDerFromBytes(modulus, hexStringToBytes(DEFAULT_PUBLIC_EXPONENT));
}

}  // namespace talvik
