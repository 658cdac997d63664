#include "signing.h"

#include <algorithm>

#include "der_text.h"
#include "files.h"

namespace talvik_tool {
namespace {

struct DigestOids {
    int code;
    const char* digest;
    const char* withRsa;
    const char* withEcdsa;
};
constexpr DigestOids digestOids[] = {
    {TALVIK_HASH_SHA256, "2.16.840.1.101.3.4.2.1", "1.2.840.113549.1.1.11", "1.2.840.10045.4.3.2"},
    {TALVIK_HASH_SHA384, "2.16.840.1.101.3.4.2.2", "1.2.840.113549.1.1.12", "1.2.840.10045.4.3.3"},
    {TALVIK_HASH_SHA512, "2.16.840.1.101.3.4.2.3", "1.2.840.113549.1.1.13", "1.2.840.10045.4.3.4"},
};
constexpr char rsaEncryption[] = "1.2.840.113549.1.1.1";

const DigestOids& oidsOf(const DigestType& digest) {
    return *std::ranges::find(digestOids, digest.code, &DigestOids::code);
}

bool isRsa(const TalvikKeyPair& key) {
    const auto* type = virtual_token::keyTypeOf(key.keyType);
    return type != nullptr && type->isRsa();
}

}  // namespace

const DigestType& digestFor(const TalvikKeyPair& key, std::string_view name) {
    const int strength = key.keyType == TALVIK_KEY_EC_P521   ? TALVIK_HASH_SHA512
                         : key.keyType == TALVIK_KEY_EC_P384 ? TALVIK_HASH_SHA384
                                                             : TALVIK_HASH_SHA256;
    const DigestType* chosen = virtual_token::digestOfCode(strength);
    for (const DigestOids& each : digestOids) {
        const DigestType* digest = virtual_token::digestOfCode(each.code);
        chosen = digest->name == name ? digest : chosen;
    }
    return *chosen;
}

Bytes digestAlgorithm(const DigestType& digest) {
    return derSequenceOf({derObjectId(oidsOf(digest).digest)});
}

const DigestType* digestOfAlgorithm(ByteView algorithm) {
    const ByteView oid = virtual_token::DerReader(algorithm).enter(virtual_token::derSequence).read().whole;
    for (const DigestOids& each : digestOids) {
        if (std::ranges::equal(derObjectId(each.digest), oid)) {
            return virtual_token::digestOfCode(each.code);
        }
    }
    return nullptr;
}

Bytes signatureAlgorithm(const TalvikKeyPair& key, const DigestType& digest, SignatureOf where) {
    if (!isRsa(key)) {
        return derSequenceOf({derObjectId(oidsOf(digest).withEcdsa)});
    }
    return derSequenceOf({derObjectId(where == SignatureOf::Message ? rsaEncryption : oidsOf(digest).withRsa),
                          virtual_token::derElement(virtual_token::derNull, {})});
}

Bytes signatureOver(const KeyOnToken& signer, ByteView digest) {
    Bytes signature = signer.device.sign(signer.key, digest);
    if (isRsa(signer.key)) {
        return signature;
    }
    const ByteView both(signature);
    return derSequenceOf({virtual_token::derUnsigned(both.first(both.size() / 2)),
                          virtual_token::derUnsigned(both.last(both.size() / 2))});
}

Bytes Hasher::finish() {
    const unsigned char* digest = gcry_md_read(handle_.get(), type_.algorithm);
    return Bytes(digest, digest + type_.length);
}

Bytes digestOf(const DigestType& type, ByteView data) {
    Hasher hasher(type);
    hasher.add(data);
    return hasher.finish();
}

Bytes digestOfFile(const DigestType& type, const std::string& name) {
    Hasher hasher(type);
    readInPieces(name, [&hasher](ByteView piece) { hasher.add(piece); });
    return hasher.finish();
}

}  // namespace talvik_tool
