#include "detached_signature.h"

#include <filesystem>
#include <fstream>

namespace demo {

namespace {

constexpr std::size_t chunkSize = 1 << 20;

Bytes encodedNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return encode(PKCS_UTC_TIME, &now);
}

// Every byte of the file at `path` goes through the message's hash, in pieces.
void feed(const Message& message, const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + std::filesystem::path(path).string());
    }
    Bytes chunk(chunkSize);
    bool final = false;
    while (!final) {
        file.read(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(chunk.size()));
        if (file.bad()) {
            throw std::runtime_error("cannot read " + std::filesystem::path(path).string());
        }
        final = file.eof();
        require(CryptMsgUpdate(message.get(), chunk.data(), static_cast<DWORD>(file.gcount()), final),
                "CryptMsgUpdate");
    }
}

}  // namespace

Bytes signFile(const Context& context, const Bytes& signerCertificate, const std::wstring& path) {
    const Certificate certificate = parseCertificate(signerCertificate);
    Bytes encodedCertificate = signerCertificate;
    CERT_BLOB certificateBlob{static_cast<DWORD>(encodedCertificate.size()), encodedCertificate.data()};

    Bytes signingTime = encodedNow();
    CRYPT_ATTR_BLOB timeBlob{static_cast<DWORD>(signingTime.size()), signingTime.data()};
    char timeOid[] = szOID_RSA_signingTime;
    CRYPT_ATTRIBUTE timeAttribute{timeOid, 1, &timeBlob};

    CMSG_SIGNER_ENCODE_INFO signer{};
    char sha256[] = szOID_NIST_sha256;
    signer.cbSize = sizeof signer;
    signer.pCertInfo = certificate.get()->pCertInfo;
    signer.hCryptProv = context.get();
    signer.dwKeySpec = AT_SIGNATURE;
    signer.HashAlgorithm.pszObjId = sha256;
    signer.cAuthAttr = 1;
    signer.rgAuthAttr = &timeAttribute;

    CMSG_SIGNED_ENCODE_INFO info{};
    info.cbSize = sizeof info;
    info.cSigners = 1;
    info.rgSigners = &signer;
    info.cCertEncoded = 1;
    info.rgCertEncoded = &certificateBlob;

    const Message message(CryptMsgOpenToEncode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, CMSG_DETACHED_FLAG, CMSG_SIGNED,
                                               &info, nullptr, nullptr));
    require(message.get() != nullptr, "CryptMsgOpenToEncode");
    feed(message, path);
    return content(message);
}

}  // namespace demo
