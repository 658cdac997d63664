#include "certificate.h"

#include <algorithm>
#include <iterator>

#include "asymmetric_key.h"
#include "der.h"
#include "status.h"

namespace virtual_token {
namespace {

constexpr unsigned char derExplicitVersion = 0xA0;
constexpr unsigned char derUtcTime = 0x17;
constexpr unsigned char derBmpString = 0x1E;

struct AttributeName {
    std::string_view oid;
    const char* name;
};
constexpr AttributeName attributeNames[] = {
    {std::string_view("\x55\x04\x03", 3), "CN"},
    {std::string_view("\x55\x04\x05", 3), "serialNumber"},
    {std::string_view("\x55\x04\x06", 3), "C"},
    {std::string_view("\x55\x04\x07", 3), "L"},
    {std::string_view("\x55\x04\x08", 3), "ST"},
    {std::string_view("\x55\x04\x0A", 3), "O"},
    {std::string_view("\x55\x04\x0B", 3), "OU"},
    {std::string_view("\x2A\x86\x48\x86\xF7\x0D\x01\x09\x01", 9), "emailAddress"},
    {std::string_view("\x09\x92\x26\x89\x93\xF2\x2C\x64\x01\x19", 10), "DC"},
};

std::string attributeName(ByteView oid) {
    const auto* found =
        std::find_if(std::begin(attributeNames), std::end(attributeNames),
                     [oid](const AttributeName& row) { return std::ranges::equal(viewOf(row.oid), oid); });
    return found == std::end(attributeNames) ? "OID." + toHex(oid) : found->name;
}

std::string attributeValue(const DerElement& value) {
    if (value.tag != derBmpString) {
        return std::string(value.content.begin(), value.content.end());
    }
    const std::size_t units = value.content.size() / 2;
    std::wstring wide;
    for (std::size_t i = 0; i < units; ++i) {
        wide += static_cast<wchar_t>(value.content[2 * i] << 8 | value.content[2 * i + 1]);
    }
    std::string text(units * 3, '\0');
    text.resize(
        static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                                     text.data(), static_cast<int>(text.size()), nullptr, nullptr)));
    return text;
}

std::string readName(DerReader name) {
    std::string text;
    while (!name.atEnd()) {
        DerReader relative = name.enter(derSet);
        while (!relative.atEnd()) {
            DerReader attribute = relative.enter(derSequence);
            const std::string key = attributeName(attribute.read(derObjectIdentifier));
            text += (text.empty() ? "" : ", ") + key + "=" + attributeValue(attribute.read());
        }
    }
    return text;
}

// YYMMDDHHMMSSZ or YYYYMMDDHHMMSSZ; a two-digit year below 50 belongs to this century.
std::string readTime(const DerElement& time) {
    std::string digits(time.content.begin(), time.content.end());
    if (time.tag == derUtcTime) {
        digits.insert(0, !digits.empty() && digits[0] < '5' ? "20" : "19");
    }
    require(digits.size() >= 14, Status::BadCertificate);
    return digits.substr(0, 4) + "-" + digits.substr(4, 2) + "-" + digits.substr(6, 2) + " " + digits.substr(8, 2) +
           ":" + digits.substr(10, 2) + ":" + digits.substr(12, 2) + "Z";
}

Bytes contractPublicKey(const Bytes& publicKeyInfo) {
    try {
        const PublicKey key(publicKeyInfo);
        return key.isRsa() ? key.modulus() : publicKeyInfo;
    } catch (const TokenError&) {
        return publicKeyInfo;  // a kind of key that no token holds
    }
}

}  // namespace

CertificateFacts readCertificate(ByteView der) try {
    DerReader document(der);
    DerReader certificate = document.enter(derSequence);
    document.finish();
    DerReader body = certificate.enter(derSequence);
    certificate.read(derSequence);  // signature algorithm
    certificate.read(derBitString);
    certificate.finish();

    if (body.nextIs(derExplicitVersion)) {
        body.read();
    }
    CertificateFacts facts;
    facts.serialNumber = toHex(body.read(derInteger));
    body.read(derSequence);  // signature algorithm
    facts.issuer = readName(body.enter(derSequence));
    DerReader validity = body.enter(derSequence);
    facts.validFrom = readTime(validity.read());
    facts.validTo = readTime(validity.read());
    facts.subject = readName(body.enter(derSequence));
    require(body.nextIs(derSequence), Status::BadCertificate);
    const ByteView info = body.read().whole;
    facts.publicKeyInfo.assign(info.begin(), info.end());
    facts.publicKey = contractPublicKey(facts.publicKeyInfo);
    return facts;
} catch (const TokenError&) {
    throw TokenError(Status::BadCertificate);
}

}  // namespace virtual_token
