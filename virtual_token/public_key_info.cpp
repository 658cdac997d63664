#include "public_key_info.h"

#include "der.h"

namespace virtual_token {
namespace {

constexpr unsigned char noUnusedBits[] = {0};

Bytes subjectPublicKeyInfo(const Bytes& algorithm, ByteView key) {
    return derElement(derSequence, {algorithm, derElement(derBitString, {noUnusedBits, key})});
}

}  // namespace

ByteView withoutLeadingZeros(ByteView number) {
    while (!number.empty() && number[0] == 0) {
        number = number.subspan(1);
    }
    return number;
}

Bytes rsaPublicKeyInfo(ByteView modulus, ByteView exponent) {
    const Bytes algorithm =
        derElement(derSequence, {derElement(derObjectIdentifier, {viewOf(oidRsaEncryption)}), derElement(derNull, {})});
    return subjectPublicKeyInfo(algorithm, derElement(derSequence, {derUnsigned(modulus), derUnsigned(exponent)}));
}

Bytes ecPublicKeyInfo(const KeyType& curve, ByteView point) {
    const Bytes algorithm = derElement(derSequence, {derElement(derObjectIdentifier, {viewOf(oidEcPublicKey)}),
                                                     derElement(derObjectIdentifier, {viewOf(curve.curveOid)})});
    return subjectPublicKeyInfo(algorithm, point);
}

}  // namespace virtual_token
