// An application that knows a certificate of the user's store by its subject, and nothing of tokens or providers:
//
//     talvik_store_demo SUBJECT FILE SIGNATURE
//
// signs FILE, detached CMS, with the key that the certificate is linked to.
#include <cstdio>
#include <exception>

#include "../cryptoapi.h"

namespace {

using namespace demo;

void closeStore(HCERTSTORE store) {
    CertCloseStore(store, 0);
}

Certificate findInMyStore(const wchar_t* subject) {
    const Owned<HCERTSTORE, closeStore> store(CertOpenSystemStoreW(0, L"MY"));
    Certificate found(
        CertFindCertificateInStore(store.get(), X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W, subject, nullptr));
    require(found.get() != nullptr, "finding the certificate in the user's store");
    return found;
}

Bytes sign(PCCERT_CONTEXT certificate, const Bytes& data) {
    CRYPT_SIGN_MESSAGE_PARA how{};
    char sha256[] = szOID_NIST_sha256;
    how.cbSize = sizeof how;
    how.dwMsgEncodingType = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    how.pSigningCert = certificate;
    how.HashAlgorithm.pszObjId = sha256;
    how.cMsgCert = 1;
    how.rgpMsgCert = &certificate;
    const BYTE* part = data.data();
    auto partSize = static_cast<DWORD>(data.size());
    DWORD size = 0;
    require(CryptSignMessage(&how, TRUE, 1, &part, &partSize, nullptr, &size), "CryptSignMessage");
    Bytes message(size);
    require(CryptSignMessage(&how, TRUE, 1, &part, &partSize, message.data(), &size), "CryptSignMessage");
    message.resize(size);
    return message;
}

}  // namespace

int wmain(int argc, wchar_t** argv) try {
    if (argc != 4) {
        std::fprintf(stderr, "usage: talvik_store_demo SUBJECT FILE SIGNATURE\n");
        return 2;
    }
    const Certificate certificate = findInMyStore(argv[1]);
    writeFile(argv[3], sign(certificate.get(), readFile(argv[2])));
    return 0;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 1;
}
