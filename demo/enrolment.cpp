#include "enrolment.h"

namespace demo {

namespace {

constexpr DWORD rsa2048 = 2048u << 16;  // CryptGenKey takes the key size in the upper half of its flags
std::uint8_t derNull[] = {0x05, 0x00};
std::uint8_t noAttributes[] = {0xA0, 0x00};  // [0] IMPLICIT SET OF Attribute, empty

Bytes encodedName(const char* name) {
    DWORD length = 0;
    require(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, nullptr, &length, nullptr),
            "CertStrToName");
    Bytes der(length);
    require(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, der.data(), &length, nullptr),
            "CertStrToName");
    return der;
}

// A CERT_PUBLIC_KEY_INFO whose pointers lie in the returned buffer.
Bytes exportedPublicKey(const Context& context, DWORD keySpec) {
    DWORD length = 0;
    require(CryptExportPublicKeyInfo(context.get(), keySpec, X509_ASN_ENCODING, nullptr, &length),
            "CryptExportPublicKeyInfo");
    Bytes info(length);
    require(CryptExportPublicKeyInfo(context.get(), keySpec, X509_ASN_ENCODING,
                                     reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.data()), &length),
            "CryptExportPublicKeyInfo");
    return info;
}

// CertificationRequestInfo of RFC 2986, put together from its parts: not every CRYPT32 can encode a
// CERT_REQUEST_INFO as a whole.
Bytes requestInfo(const Context& context, const char* subject) {
    const int version = CERT_REQUEST_V1;
    Bytes parts[] = {encode(X509_INTEGER, &version), encodedName(subject), publicKey(context, AT_SIGNATURE),
                     Bytes(std::begin(noAttributes), std::end(noAttributes))};
    CRYPT_DER_BLOB blobs[std::size(parts)];
    for (std::size_t i = 0; i < std::size(parts); ++i) {
        blobs[i] = {static_cast<DWORD>(parts[i].size()), parts[i].data()};
    }
    const CRYPT_SEQUENCE_OF_ANY sequence{static_cast<DWORD>(std::size(blobs)), blobs};
    return encode(X509_SEQUENCE_OF_ANY, &sequence);
}

}  // namespace

std::optional<Key> findKey(const Context& context, DWORD keySpec) {
    Key key;
    if (CryptGetUserKey(context.get(), keySpec, key.put())) {
        return key;
    }
    const DWORD error = GetLastError();
    if (error == static_cast<DWORD>(NTE_NO_KEY) || error == static_cast<DWORD>(NTE_BAD_KEY)) {
        return std::nullopt;  // no key at all, or none of this kind
    }
    throw Failure("CryptGetUserKey", error);
}

Key generateKey(const Context& context, ALG_ID algorithm) {
    Key key;
    require(CryptGenKey(context.get(), algorithm, rsa2048, key.put()), "CryptGenKey");
    return key;
}

Bytes publicKey(const Context& context, DWORD keySpec) {
    return encode(X509_PUBLIC_KEY_INFO, exportedPublicKey(context, keySpec).data());
}

Bytes certificateRequest(const Context& context, const char* subject) {
    Bytes info = requestInfo(context, subject);
    char sha256WithRsa[] = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm{sha256WithRsa, {sizeof derNull, derNull}};
    const auto infoLength = static_cast<DWORD>(info.size());

    DWORD length = 0;
    require(CryptSignCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, info.data(), infoLength, &algorithm,
                                 nullptr, nullptr, &length),
            "CryptSignCertificate");
    Bytes signature(length);
    require(CryptSignCertificate(context.get(), AT_SIGNATURE, X509_ASN_ENCODING, info.data(), infoLength, &algorithm,
                                 nullptr, signature.data(), &length),
            "CryptSignCertificate");

    const CERT_SIGNED_CONTENT_INFO request{{infoLength, info.data()}, algorithm, {length, signature.data(), 0}};
    return encode(X509_CERT, &request);
}

Bytes storedCertificate(const Key& key) {
    DWORD length = 0;
    if (!CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, &length, 0)) {
        const DWORD error = GetLastError();
        if (error == static_cast<DWORD>(NTE_NOT_FOUND)) {
            return {};
        }
        throw Failure("CryptGetKeyParam(KP_CERTIFICATE)", error);
    }
    Bytes certificate(length);
    require(CryptGetKeyParam(key.get(), KP_CERTIFICATE, certificate.data(), &length, 0),
            "CryptGetKeyParam(KP_CERTIFICATE)");
    certificate.resize(length);
    return certificate;
}

void storeCertificate(const Key& key, const Bytes& certificate) {
    require(CryptSetKeyParam(key.get(), KP_CERTIFICATE, certificate.data(), 0), "CryptSetKeyParam(KP_CERTIFICATE)");
}

bool certifiesKey(const Context& context, DWORD keySpec, const Bytes& certificate) {
    Bytes publicKey = exportedPublicKey(context, keySpec);
    const Certificate parsed = parseCertificate(certificate);
    return CertComparePublicKeyInfo(X509_ASN_ENCODING, &parsed.get()->pCertInfo->SubjectPublicKeyInfo,
                                    reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(publicKey.data()));
}

Bytes certificateChain(const Context& context) {
    DWORD length = 0;
    require(CryptGetProvParam(context.get(), PP_CERTCHAIN, nullptr, &length, 0), "CryptGetProvParam(PP_CERTCHAIN)");
    Bytes message(length);
    require(CryptGetProvParam(context.get(), PP_CERTCHAIN, message.data(), &length, 0),
            "CryptGetProvParam(PP_CERTCHAIN)");
    message.resize(length);
    return message;
}

}  // namespace demo
