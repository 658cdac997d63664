// What the program of the key and data tests does as a second process. The exit status is 0 when the role was played
// well.
#include "e2e/objects.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

int unwrapping(const std::string&) {
    const Context context = acquire();
    presentPin(context);
    return import(context, keyBlob(SYMMETRICWRAPKEYBLOB, CALG_AES_128, read("wrapped"))) ? 0 : 1;
}

// Finds its certificate, and through it the private key, anew for each signature.
int signingFromTheStore(const std::string& name) {
    const Bytes subjectBytes = read("subject");
    const std::wstring subject(subjectBytes.begin(), subjectBytes.end());
    DialogRobot robot;
    robot.enters(pin);
    for (int i = 0; i < 3; ++i) {
        const HCERTSTORE store = CertOpenSystemStoreA(0, "MY");
        const PCCERT_CONTEXT certificate =
            CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W, subject.c_str(), nullptr);
        HCRYPTPROV provider = 0;
        DWORD keySpec = 0;
        BOOL isOurs = FALSE;
        if (!certificate || !CryptAcquireCertificatePrivateKey(certificate, 0, nullptr, &provider, &keySpec, &isOurs)) {
            return 1;
        }
        Context context;
        *context.put() = provider;
        if (!isOurs || keySpec != AT_SIGNATURE) {
            return 2;
        }
        const Bytes signature = sign(digest(context, CALG_SHA_256, bytesOf(name)));
        if (signature.empty()) {
            return 3;
        }
        write("signature-" + name, signature);
        CertFreeCertificateContext(certificate);
        CertCloseStore(store, 0);
    }
    return robot.finish() == std::vector<std::string>{"PIN"} ? 0 : 4;
}

}  // namespace

const Roles roles = {{"unwrap", unwrapping}, {"client", signingFromTheStore}};

}  // namespace e2e
