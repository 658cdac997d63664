#include "certificate_context.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "gcrypt_objects.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::utf8;

bool equal(const CRYPT_DATA_BLOB& left, const CRYPT_DATA_BLOB& right) {
    return left.cbData == right.cbData && std::memcmp(left.pbData, right.pbData, left.cbData) == 0;
}

std::string nameText(const CERT_NAME_BLOB& name) {
    std::array<wchar_t, 1024> text = {};
    auto* blob = const_cast<CERT_NAME_BLOB*>(&name);
    const DWORD length =
        CertNameToStrW(X509_ASN_ENCODING, blob, CERT_X500_NAME_STR, text.data(), static_cast<DWORD>(text.size()));
    return utf8(std::wstring(text.data(), length > 0 ? length - 1 : 0));
}

unsigned long long ticksOf(const FILETIME& time) {
    return static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

std::vector<std::string> extendedUsages(const CERT_CONTEXT& certificate) {
    DWORD size = 0;
    CertGetEnhancedKeyUsage(&certificate, CERT_FIND_EXT_ONLY_ENHKEY_USAGE_FLAG, nullptr, &size);
    std::vector<unsigned char> held(std::max<std::size_t>(size, sizeof(CERT_ENHKEY_USAGE)));
    auto* usage = reinterpret_cast<CERT_ENHKEY_USAGE*>(held.data());
    std::vector<std::string> oids;
    if (size > 0 && CertGetEnhancedKeyUsage(&certificate, CERT_FIND_EXT_ONLY_ENHKEY_USAGE_FLAG, usage, &size)) {
        oids.assign(usage->rgpszUsageIdentifier, usage->rgpszUsageIdentifier + usage->cUsageIdentifier);
    }
    return oids;
}

}  // namespace

Certificate parseCertificate(ByteView der) {
    return Certificate(CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, der.data(),
                                                    static_cast<DWORD>(der.size())));
}

ByteView derOf(const CERT_CONTEXT& certificate) {
    return {certificate.pbCertEncoded, certificate.cbCertEncoded};
}

std::string subjectOf(const CERT_CONTEXT& certificate) {
    return nameText(certificate.pCertInfo->Subject);
}

std::string issuerOf(const CERT_CONTEXT& certificate) {
    return nameText(certificate.pCertInfo->Issuer);
}

std::string shortNameOf(const CERT_CONTEXT& certificate) {
    std::array<wchar_t, 256> name = {};
    CertGetNameStringW(&certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name.data(),
                       static_cast<DWORD>(name.size()));
    return utf8(name.data());
}

std::string dateText(const FILETIME& time) {
    SYSTEMTIME date = {};
    FileTimeToSystemTime(&time, &date);
    char text[16];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", date.wYear, date.wMonth, date.wDay);
    return text;
}

std::string thumbprintOf(ByteView der) {
    virtual_token::startGcrypt();
    unsigned char digest[20];
    gcry_md_hash_buffer(GCRY_MD_SHA1, digest, der.data(), der.size());
    return virtual_token::toHex(digest);
}

long long daysLeft(const CERT_CONTEXT& certificate) {
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    const auto left = static_cast<long long>(ticksOf(certificate.pCertInfo->NotAfter) - ticksOf(now));
    return left < 0 ? -1 : left / (10000000LL * 60 * 60 * 24);
}

std::vector<std::string> usagesOf(const CERT_CONTEXT& certificate) {
    BYTE bits = 0;
    CertGetIntendedKeyUsage(X509_ASN_ENCODING, certificate.pCertInfo, &bits, sizeof bits);
    std::vector<std::string> oids = extendedUsages(certificate), names;
    for (const UsageName& usage : certificateUsages) {
        if (usage.oid == nullptr ? (bits << usage.bit & 0x80) != 0 : std::erase(oids, usage.oid) > 0) {
            names.emplace_back(usage.name);
        }
    }
    names.insert(names.end(), oids.begin(), oids.end());
    return names;
}

bool isSelfIssued(const CERT_CONTEXT& certificate) {
    return equal(certificate.pCertInfo->Subject, certificate.pCertInfo->Issuer);
}

bool isAuthority(const CERT_CONTEXT& certificate) {
    const CERT_EXTENSION* extension = CertFindExtension(szOID_BASIC_CONSTRAINTS2, certificate.pCertInfo->cExtension,
                                                        certificate.pCertInfo->rgExtension);
    CERT_BASIC_CONSTRAINTS2_INFO constraints{};
    DWORD size = sizeof constraints;
    return extension != nullptr &&
           CryptDecodeObject(X509_ASN_ENCODING, X509_BASIC_CONSTRAINTS2, extension->Value.pbData,
                             extension->Value.cbData, 0, &constraints, &size) &&
           constraints.fCA;
}

std::vector<Bytes> chainOf(ByteView leaf, const std::vector<Bytes>& pool) {
    std::vector<Bytes> chain{Bytes(leaf.begin(), leaf.end())};
    Certificate last = parseCertificate(leaf);
    while (last && !isSelfIssued(*last)) {
        const auto issued = [&](const Bytes& der) {
            const Certificate candidate = parseCertificate(der);
            return candidate && equal(candidate->pCertInfo->Subject, last->pCertInfo->Issuer) &&
                   std::ranges::find(chain, der) == chain.end();
        };
        const auto issuer = std::ranges::find_if(pool, issued);
        if (issuer == pool.end()) {
            break;
        }
        chain.push_back(*issuer);
        last = parseCertificate(*issuer);
    }
    return chain;
}

}  // namespace talvik_tool
