// An application that knows a certificate of the user's store and nothing of the provider.
#include "e2e/objects.h"

namespace e2e {
namespace {

// The user's own store, which is written when it is closed.
class MyStore {
  public:
    ~MyStore() { EXPECT_TRUE(CertCloseStore(store_, 0)); }
    void add(const Bytes& der, const std::string& container) {
        PCCERT_CONTEXT certificate = nullptr;
        ASSERT_TRUE(CertAddEncodedCertificateToStore(store_, X509_ASN_ENCODING, der.data(),
                                                     static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING,
                                                     &certificate));
        std::wstring name(container.begin(), container.end());
        std::wstring provider(std::begin(providerName), std::end(providerName) - 1);
        CRYPT_KEY_PROV_INFO info{name.data(), provider.data(), PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
        EXPECT_TRUE(CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
        CertFreeCertificateContext(certificate);
    }
    void clear() {
        while (const PCCERT_CONTEXT certificate = CertEnumCertificatesInStore(store_, nullptr)) {
            ASSERT_TRUE(CertDeleteCertificateFromStore(certificate));
        }
    }

  private:
    HCERTSTORE store_ = CertOpenSystemStoreA(0, "MY");
};

class StoreClient : public Tokens {
  protected:
    void TearDown() override {
        MyStore().clear();
        Tokens::TearDown();
    }
};

TEST_F(StoreClient, SignsWithTheTokensKeyAndIsAskedForOnePin) {
    makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);  // not the one that is meant
    const TalvikKeyPair pair = makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);
    writePublicKey(pair);
    // The store outlives a run that was broken off: each run looks for a subject of its own.
    const std::string subject = "StoreClient-" + containerOf(pair);
    write("subject", bytesOf(subject));
    MyStore().add(certificateForPublicKey(subject), containerOf(pair));

    for (const char* name : {"first", "second"}) {
        EXPECT_EQ(Role("client", name).wait(), 0u);
        write("signature", reversed(read(std::string("signature-") + name)));
        write("data", bytesOf(name));
        run("dgst -sha256 -verify public.pem -signature signature data");
    }
}

}  // namespace
}  // namespace e2e
