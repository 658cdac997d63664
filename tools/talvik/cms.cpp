#include "cms.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>

#include "asymmetric_key.h"
#include "certificate.h"
#include "der_text.h"
#include "status.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;

constexpr char oidData[] = "1.2.840.113549.1.7.1";
constexpr char oidSignedData[] = "1.2.840.113549.1.7.2";
constexpr char oidContentType[] = "1.2.840.113549.1.9.3";
constexpr char oidMessageDigest[] = "1.2.840.113549.1.9.4";
constexpr char oidSigningTime[] = "1.2.840.113549.1.9.5";
constexpr unsigned char derImplicit1 = 0xA1;
constexpr int lastYearOfUtcTime = 2049;

Bytes copyOf(ByteView view) {
    return Bytes(view.begin(), view.end());
}

Bytes timeNow() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    const bool isShort = now.wYear <= lastYearOfUtcTime;
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%04u%02u%02u%02u%02u%02uZ", now.wYear, now.wMonth, now.wDay,
                                     now.wHour, now.wMinute, now.wSecond);
    const std::string_view digits = std::string_view(text, static_cast<std::size_t>(length)).substr(isShort ? 2 : 0);
    return derElement(isShort ? derUtcTime : derGeneralizedTime, {viewOf(digits)});
}

// What names a certificate: its issuer and its serial number, both as they stand in it.
struct IssuerAndSerial {
    ByteView issuer, serial;
    bool operator==(const IssuerAndSerial& other) const {
        return std::ranges::equal(issuer, other.issuer) && std::ranges::equal(serial, other.serial);
    }
};

IssuerAndSerial issuerAndSerialOf(ByteView certificate) {
    DerReader body = DerReader(certificate).enter(derSequence).enter(derSequence);
    if (body.nextIs(derExplicit0)) {
        body.read();
    }
    IssuerAndSerial name;
    name.serial = body.read().whole;
    body.read();  // signature algorithm
    name.issuer = body.read().whole;
    return name;
}

Bytes attribute(const char* oid, const Bytes& value) {
    return derSequenceOf({derObjectId(oid), derSetOf({value})});
}

// Signed as a SET, held as [0].
Bytes retagged(Bytes element, unsigned char tag) {
    element[0] = tag;
    return element;
}

Bytes signerInfo(const KeyOnToken& signer, const DigestType& digest, ByteView contentDigest, const Bytes& certificate) {
    const IssuerAndSerial name = issuerAndSerialOf(certificate);
    const Bytes attributes =
        derSetOf({attribute(oidContentType, derObjectId(oidData)), attribute(oidSigningTime, timeNow()),
                  attribute(oidMessageDigest, derElement(derOctetString, {contentDigest}))});
    const Bytes signature = signatureOver(signer, digestOf(digest, attributes));
    return derSequenceOf({derSmallInteger(1), derElement(derSequence, {name.issuer, name.serial}),
                          digestAlgorithm(digest), retagged(attributes, derExplicit0),
                          signatureAlgorithm(signer.key, digest, SignatureOf::Message),
                          derElement(derOctetString, {signature})});
}

// --- reading ---

std::string timeText(const DerElement& time) {
    std::string digits(time.content.begin(), time.content.end());
    if (time.tag == derUtcTime) {
        digits.insert(0, !digits.empty() && digits[0] < '5' ? "20" : "19");
    }
    return digits.size() < 14 ? ""
                              : digits.substr(0, 4) + "-" + digits.substr(4, 2) + "-" + digits.substr(6, 2) + " " +
                                    digits.substr(8, 2) + ":" + digits.substr(10, 2) + ":" + digits.substr(12, 2) + "Z";
}

void readAttributes(MessageSigner& signer) {
    for (DerReader all = DerReader(signer.signedAttributes).enter(derSet); !all.atEnd();) {
        DerReader each = all.enter(derSequence);
        const ByteView oid = each.read().whole;
        DerReader values = each.enter(derSet);
        if (std::ranges::equal(oid, derObjectId(oidMessageDigest))) {
            signer.messageDigest = copyOf(values.read(derOctetString));
        } else if (std::ranges::equal(oid, derObjectId(oidSigningTime))) {
            signer.signingTime = timeText(values.read());
        }
    }
}

// The certificate that a SignerInfo means, by issuer and serial number or by its subject key identifier, which stands
// in its extension as an octet string.
Bytes certificateOf(const DerElement& name, const std::vector<Bytes>& certificates) {
    const auto means = [&name](const Bytes& certificate) {
        if (name.tag == derSequence) {
            DerReader parts(name.content);
            const ByteView issuer = parts.read().whole;
            return issuerAndSerialOf(certificate) == IssuerAndSerial{issuer, parts.read().whole};
        }
        const Bytes identifier = derElement(derOctetString, {name.content});
        return !std::ranges::search(certificate, identifier).empty();
    };
    const auto found = std::ranges::find_if(certificates, means);
    if (found == certificates.end()) {
        throw TokenError(Status::BadCertificate, "the message does not hold its signer's certificate");
    }
    return *found;
}

MessageSigner readSigner(DerReader info, const std::vector<Bytes>& certificates) {
    MessageSigner signer;
    info.read(derInteger);
    signer.certificate = certificateOf(info.read(), certificates);
    signer.digest = digestOfAlgorithm(info.read().whole);
    if (info.nextIs(derExplicit0)) {
        signer.signedAttributes = retagged(copyOf(info.read().whole), derSet);
        readAttributes(signer);
    }
    info.read(derSequence);  // the signature's algorithm follows from the key and the digest
    signer.signature = copyOf(info.read(derOctetString));
    return signer;
}

// The sequence of r and s, put side by side as the token has them.
Bytes sideBySide(ByteView der, std::size_t width) {
    DerReader numbers = DerReader(der).enter(derSequence);
    Bytes both;
    for (int i = 0; i < 2; ++i) {
        ByteView number = numbers.read(derInteger);
        while (number.size() > width && number[0] == 0) {
            number = number.subspan(1);
        }
        require(number.size() <= width, Status::BadSignature);
        both.resize(both.size() + width - number.size());
        both.insert(both.end(), number.begin(), number.end());
    }
    return both;
}

}  // namespace

Bytes signedMessage(const KeyOnToken& signer, const DigestType& digest, ByteView contentDigest,
                    const std::optional<ByteView>& content, const std::vector<Bytes>& certificates) {
    const Bytes held = content ? derElement(derExplicit0, {derElement(derOctetString, {*content})}) : Bytes();
    const Bytes data =
        derSequenceOf({derSmallInteger(1), derSetOf({digestAlgorithm(digest)}),
                       derSequenceOf({derObjectId(oidData), held}), retagged(derSetOf(certificates), derExplicit0),
                       derSetOf({signerInfo(signer, digest, contentDigest, certificates.front())})});
    return derSequenceOf({derObjectId(oidSignedData), derElement(derExplicit0, {data})});
}

SignedMessage readSignedMessage(ByteView der) try {
    DerReader outer = DerReader(der).enter(derSequence);
    require(std::ranges::equal(outer.read().whole, derObjectId(oidSignedData)), Status::BadData);
    DerReader data = outer.enter(derExplicit0).enter(derSequence);
    SignedMessage message;
    data.read(derInteger);
    data.read(derSet);  // the signers name their digests
    DerReader content = data.enter(derSequence);
    content.read(derObjectIdentifier);
    if (!content.atEnd()) {
        message.content = copyOf(content.enter(derExplicit0).read(derOctetString));
    }
    if (data.nextIs(derExplicit0)) {
        for (DerReader certificates = data.enter(derExplicit0); !certificates.atEnd();) {
            message.certificates.push_back(copyOf(certificates.read().whole));
        }
    }
    if (data.nextIs(derImplicit1)) {
        data.read();  // revocation lists
    }
    for (DerReader signers = data.enter(derSet); !signers.atEnd();) {
        message.signers.push_back(readSigner(signers.enter(derSequence), message.certificates));
    }
    require(!message.signers.empty(), Status::BadData);
    return message;
} catch (const TokenError& error) {
    if (error.status() == Status::BadCertificate) {
        throw;
    }
    throw TokenError(Status::BadData, "this is no signed CMS message in DER or PEM");
}

void verifySignature(const MessageSigner& signer, ByteView contentDigest) {
    const auto refuse = [](const char* why) { throw TokenError(Status::BadSignature, why); };
    const bool direct = signer.signedAttributes.empty();
    if (!direct && !std::ranges::equal(signer.messageDigest, contentDigest)) {
        refuse("the content is not what was signed");
    }
    try {
        const PublicKey key(readCertificate(signer.certificate).publicKeyInfo);
        const Bytes digest = direct ? copyOf(contentDigest) : digestOf(*signer.digest, signer.signedAttributes);
        const Bytes signature =
            key.isRsa() ? signer.signature : sideBySide(signer.signature, key.curve()->coordinateLength);
        key.verify(digest, signature, false);
    } catch (const TokenError&) {
        refuse("the signature was not made with the certificate's key, or not over this content");
    }
}

}  // namespace talvik_tool
