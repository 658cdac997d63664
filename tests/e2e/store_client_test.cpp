// An application that knows a certificate of the user's store and nothing of the provider.
#include <gmock/gmock.h>

#include "e2e/objects.h"

namespace e2e {
namespace {

Store myStore() {
    return systemStore("MY");
}

class PublishedCertificate : public Tokens {
  protected:
    ~PublishedCertificate() override {
        const Store store = myStore();
        while (const PCCERT_CONTEXT certificate = CertEnumCertificatesInStore(store, nullptr)) {
            EXPECT_TRUE(CertDeleteCertificateFromStore(certificate));
        }
        EXPECT_TRUE(
            CertControlStore(store, 0, CERT_STORE_CTRL_COMMIT, nullptr));  // closing writes what was added alone
    }

    // On the token, for the key of public.der.
    Bytes enrol(const std::string& subject) {
        write("subject", bytesOf(subject));
        const Bytes der = certificateForPublicKey(subject);
        EXPECT_EQ(talvik("certs import \"" + (scratch().path() / "certificate.der").string() + "\" --pin 1234"), 0);
        return der;
    }
};

void link(PCCERT_CONTEXT certificate, const std::string& container) {
    std::wstring name(container.begin(), container.end());
    std::wstring provider(std::begin(providerName), std::end(providerName) - 1);
    CRYPT_KEY_PROV_INFO info{name.data(), provider.data(), PROV_RSA_FULL, 0, 0, nullptr, AT_SIGNATURE};
    EXPECT_TRUE(CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info));
}

// Linked to the container of this name, if it has one.
void addToMyStore(const Bytes& der, const std::string& container) {
    const Store store = myStore();
    Certificate certificate;
    ASSERT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                                 CERT_STORE_ADD_REPLACE_EXISTING, certificate.put()));
    if (!container.empty()) {
        link(certificate, container);
    }
}

Certificate mine(const Store& store) {
    const Bytes subjectBytes = read("subject");
    const std::wstring subject(subjectBytes.begin(), subjectBytes.end());
    Certificate found;
    *found.put() =
        CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W, subject.c_str(), nullptr);
    return found;
}

// Finds its certificate, and through it the private key, anew for each signature.
const PlayedRole client("client", [](const std::string& name) {
    if (!mine(myStore())) {
        return 1;
    }
    DialogRobot robot;
    robot.enters(pin);
    for (int i = 0; i < 3; ++i) {
        const Store store = myStore();
        const Certificate certificate = mine(store);
        Context context;
        DWORD keySpec = 0;
        BOOL isOurs = FALSE;
        EXPECT_TRUE(CryptAcquireCertificatePrivateKey(certificate, 0, nullptr, context.put(), &keySpec, &isOurs));
        EXPECT_TRUE(isOurs);
        write("signature-" + name, sign(digest(context, CALG_SHA_256, bytesOf(name)), keySpec));
    }
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
    return 0;
});

// Compared whole: the certificates of these tests share their issuer and its serial number.
Certificate inMyStore(const Bytes& der, const Store& store = myStore()) {
    PCCERT_CONTEXT each = nullptr;
    while ((each = CertEnumCertificatesInStore(store, each)) != nullptr &&
           der != Bytes(each->pbCertEncoded, each->pbCertEncoded + each->cbCertEncoded)) {
    }
    Certificate found;
    *found.put() = each;
    return found;
}

bool isInMyStore(const Bytes& der) {
    return inMyStore(der) != nullptr;
}

// What `talvik certs` did to each certificate, in its own words.
std::string outcome(const std::string& arguments) {
    EXPECT_EQ(talvik("certs " + arguments, "outcome"), 0) << arguments;
    const Bytes said = read("outcome");
    return {said.begin(), said.end()};
}

TEST_F(PublishedCertificate, IsFoundBySubjectAloneUntilItIsWithdrawn) {
    makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);  // not the one that is meant
    const Bytes other = certificateForPublicKey("Other");
    addToMyStore(other, "somebody else's");
    makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);
    const Bytes key = read("public.der");
    const Bytes published = enrol("Published-" + token());

    EXPECT_EQ(Role("client", "before").wait(), 1u);
    EXPECT_THAT(outcome("publish"), ::testing::HasSubstr("published"));
    EXPECT_THAT(outcome("publish"), ::testing::HasSubstr("unchanged"));
    for (const std::string name : {"first", "second"}) {
        EXPECT_EQ(Role("client", name).wait(), 0u);
        EXPECT_TRUE(opensslAccepts(key, "-sha256", bytesOf(name), read("signature-" + name)));
    }
    EXPECT_THAT(outcome("withdraw"), ::testing::HasSubstr("withdrawn"));
    EXPECT_FALSE(isInMyStore(published));
    EXPECT_TRUE(isInMyStore(other));

    addToMyStore(published, "somebody else's");
    EXPECT_THAT(outcome("publish"), ::testing::HasSubstr("left alone"));
    outcome("withdraw");
    EXPECT_TRUE(isInMyStore(published));
}

// A link of its own is mended, and only the link taken back where the certificate was there before.
TEST_F(PublishedCertificate, LinksAreMendedAndTakenBack) {
    makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);
    const Bytes der = enrol("Linked-" + token());
    addToMyStore(der, "");
    EXPECT_THAT(outcome("publish"), ::testing::HasSubstr("published"));
    {
        const Store store = myStore();
        const Certificate certificate = inMyStore(der, store);
        link(certificate, "gone");
        EXPECT_TRUE(CertControlStore(store, CERT_STORE_CTRL_COMMIT_FORCE_FLAG, CERT_STORE_CTRL_COMMIT, nullptr));
    }
    EXPECT_THAT(outcome("publish"), ::testing::HasSubstr("mended"));
    EXPECT_EQ(Role("client", "mended").wait(), 0u);
    outcome("withdraw");
    DWORD size = 0;
    const Certificate left = inMyStore(der);
    ASSERT_TRUE(left);
    EXPECT_FALSE(CertGetCertificateContextProperty(left, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size));
}

TEST_F(PublishedCertificate, FollowsTheTokenWhileItIsWatched) {
    makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);
    const Bytes der = enrol("Watched-" + token());
    const auto becomes = [&der](bool wanted) {
        for (int i = 0; i < 600 && isInMyStore(der) != wanted; ++i) {
            Sleep(100);
        }
        return isInMyStore(der) == wanted;
    };
    ChildProcess watch(talvikCommand("certs watch --withdraw"));
    EXPECT_TRUE(becomes(true));
    EXPECT_EQ(talvik("certs watch"), 4);  // one in a session
    change("detach", token());
    EXPECT_TRUE(becomes(false));
    change("attach", token());
    EXPECT_TRUE(becomes(true));
    EXPECT_EQ(talvik("certs watch --stop"), 0);
    EXPECT_EQ(watch.wait(), 0u);
    EXPECT_TRUE(isInMyStore(der));
}

}  // namespace
}  // namespace e2e
