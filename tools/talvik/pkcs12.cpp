#include "pkcs12.h"

#include <algorithm>
#include <optional>

#include "der_text.h"
#include "gcrypt_objects.h"
#include "key_import.h"
#include "private_key_file.h"
#include "status.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;

constexpr char oidPlainData[] = "1.2.840.113549.1.7.1";
constexpr char oidEncryptedData[] = "1.2.840.113549.1.7.6";
constexpr char oidKeyBag[] = "1.2.840.113549.1.12.10.1.1";
constexpr char oidShroudedKeyBag[] = "1.2.840.113549.1.12.10.1.2";
constexpr char oidCertificateBag[] = "1.2.840.113549.1.12.10.1.3";
constexpr char oidX509[] = "1.2.840.113549.1.9.22.1";
constexpr unsigned char derImplicit0Primitive = 0x80;

constexpr struct {
    const char* oid;
    int digest;  // libgcrypt's number
} macDigests[] = {
    {"1.3.14.3.2.26", GCRY_MD_SHA1},
    {"2.16.840.1.101.3.4.2.1", GCRY_MD_SHA256},
    {"2.16.840.1.101.3.4.2.2", GCRY_MD_SHA384},
    {"2.16.840.1.101.3.4.2.3", GCRY_MD_SHA512},
};

bool is(ByteView oid, const char* dotted) {
    return std::ranges::equal(oid, derObjectId(dotted));
}

struct Bags {
    std::vector<SecretBytes> keys;  // PrivateKeyInfo
    std::vector<Bytes> certificates;
};

SecretBytes hmac(int digest, const SecretBytes& key, ByteView data) {
    gcry_md_hd_t opened = nullptr;
    check(gcry_md_open(&opened, digest, GCRY_MD_FLAG_HMAC));
    const Digest handle(opened);
    check(gcry_md_setkey(opened, key.data(), key.size()));
    gcry_md_write(opened, data.data(), data.size());
    const unsigned char* value = gcry_md_read(opened, digest);
    return SecretBytes(value, value + gcry_md_get_algo_dlen(digest));
}

// Tells a wrong password from a right one before anything is decrypted.
void requirePassword(DerReader macData, ByteView content, const std::string& password) {
    DerReader digestInfo = macData.enter(derSequence);
    const ByteView oid = digestInfo.enter(derSequence).read().whole;
    const ByteView expected = digestInfo.read(derOctetString);
    const ByteView salt = macData.read(derOctetString);
    const unsigned long iterations = macData.atEnd() ? 1 : iterationsFrom(macData.read(derInteger));
    const auto* found = std::ranges::find_if(macDigests, [oid](const auto& row) { return is(oid, row.oid); });
    if (found == std::end(macDigests)) {
        throw TokenError(Status::Unsupported, "its integrity is protected by a scheme that is not supported");
    }
    const SecretBytes key =
        pkcs12Derive(found->digest, password, salt, iterations, 3, gcry_md_get_algo_dlen(found->digest));
    if (!equalInConstantTime(hmac(found->digest, key, content), expected)) {
        throw TokenError(Status::WrongPin, "the password is wrong, or the file is damaged");
    }
}

void readBag(DerReader bag, const std::string& password, Bags& bags) {
    const ByteView kind = bag.read().whole;
    DerReader value = bag.enter(derExplicit0);
    if (is(kind, oidKeyBag)) {
        const ByteView info = value.read().whole;
        bags.keys.emplace_back(info.begin(), info.end());
    } else if (is(kind, oidShroudedKeyBag)) {
        DerReader info = value.enter(derSequence);
        const ByteView algorithm = info.read().whole;
        bags.keys.push_back(decryptWithPassword(algorithm, info.read(derOctetString), password));
    } else if (is(kind, oidCertificateBag)) {
        DerReader certificate = value.enter(derSequence);
        if (is(certificate.read().whole, oidX509)) {
            const ByteView der = certificate.enter(derExplicit0).read(derOctetString);
            bags.certificates.emplace_back(der.begin(), der.end());
        }
    }
}

void readBags(ByteView safeContents, const std::string& password, Bags& bags) {
    for (DerReader contents = DerReader(safeContents).enter(derSequence); !contents.atEnd();) {
        readBag(contents.enter(derSequence), password, bags);
    }
}

void readContentInfo(DerReader info, const std::string& password, Bags& bags) {
    const ByteView kind = info.read().whole;
    DerReader content = info.enter(derExplicit0);
    if (is(kind, oidPlainData)) {
        readBags(content.read(derOctetString), password, bags);
        return;
    }
    require(is(kind, oidEncryptedData), Status::Unsupported);
    DerReader encrypted = content.enter(derSequence);
    encrypted.read(derInteger);
    DerReader inner = encrypted.enter(derSequence);
    inner.read(derObjectIdentifier);
    const ByteView algorithm = inner.read().whole;
    readBags(decryptWithPassword(algorithm, inner.read(derImplicit0Primitive), password), password, bags);
}

}  // namespace

Pkcs12Content readPkcs12(ByteView der, const std::string& password) try {
    DerReader document(der);
    DerReader pfx = document.enter(derSequence);
    document.finish();
    pfx.read(derInteger);
    DerReader outer = pfx.enter(derSequence);
    require(is(outer.read().whole, oidPlainData), Status::Unsupported);
    const ByteView authenticatedSafe = outer.enter(derExplicit0).read(derOctetString);
    if (!pfx.atEnd()) {
        requirePassword(pfx.enter(derSequence), authenticatedSafe, password);
    }
    Bags bags;
    for (DerReader safe = DerReader(authenticatedSafe).enter(derSequence); !safe.atEnd();) {
        readContentInfo(safe.enter(derSequence), password, bags);
    }
    if (bags.keys.size() != 1) {
        throw TokenError(Status::BadKey,
                         bags.keys.empty() ? "there is no private key in it" : "there are several private keys in it");
    }
    return {readPrivateKeyInfo(bags.keys.front()), std::move(bags.certificates)};
} catch (const TokenError& error) {
    if (error.status() == Status::BadData) {
        throw TokenError(Status::BadKey, "this is no PKCS #12 file in DER");
    }
    throw;
}

}  // namespace talvik_tool
