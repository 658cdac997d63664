// The certificate chain of a container, as openssl reads it.
#include "e2e/objects.h"

namespace e2e {
namespace {

class Chain : public Tokens {
  protected:
    static Bytes certificate(const std::string& subject, const std::string& options) {
        run("req -new -newkey rsa:2048 -nodes -keyout " + subject + ".key -subj /CN=" + subject + " -out request");
        run("x509 -req -in request -days 2 -set_serial 5 " + options + " -out " + subject + ".pem");
        run("x509 -in " + subject + ".pem -outform DER -out der");
        return read("der");
    }
    static std::string subjectsIn(const Context& context) {
        DWORD size = 0;
        EXPECT_TRUE(CryptGetProvParam(context, PP_CERTCHAIN, nullptr, &size, 0)) << std::hex << GetLastError();
        Bytes message(size);
        EXPECT_TRUE(CryptGetProvParam(context, PP_CERTCHAIN, message.data(), &size, 0));
        write("chain", message);
        return openssl("pkcs7 -inform DER -in chain -print_certs -noout").output;
    }
};

TEST_F(Chain, HoldsLeafIntermediateAndRootWhateverTheirOrderOnTheToken) {
    const TalvikKeyPair pair = makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH);
    writePublicKey(pair);
    const Bytes root = certificate("Root", "-signkey Root.key");
    const Bytes intermediate = certificate("Intermediate", "-CA Root.pem -CAkey Root.key");
    const Bytes leaf = certificate("Leaf", "-CA Intermediate.pem -CAkey Intermediate.key -force_pubkey public.pem");

    const Context context = acquire(containerOf(pair).c_str());
    presentPin(context);
    DWORD size = 0;
    EXPECT_FALSE(CryptGetProvParam(context, PP_CERTCHAIN, nullptr, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));

    // The root comes before the leaf here, and after it when the leaf is stored again.
    storeCertificate(token(), intermediate);
    ASSERT_TRUE(CryptSetKeyParam(userKey(context), KP_CERTIFICATE, leaf.data(), 0));
    const std::string two = subjectsIn(context);
    EXPECT_NE(two.find("subject=CN = Leaf"), std::string::npos) << two;
    EXPECT_NE(two.find("subject=CN = Intermediate"), std::string::npos) << two;
    EXPECT_EQ(two.find("subject=CN = Root"), std::string::npos) << two;
    storeCertificate(token(), root);
    for (int round = 0; round < 2; ++round) {
        const std::string three = subjectsIn(context);
        for (const char* subject : {"Leaf", "Intermediate", "Root"}) {
            EXPECT_NE(three.find(std::string("subject=CN = ") + subject), std::string::npos) << three;
        }
        ASSERT_TRUE(CryptSetKeyParam(userKey(context), KP_CERTIFICATE, leaf.data(), 0));
    }
    size = 10;
    Bytes tooSmall(10);
    EXPECT_TRUE(CryptGetProvParam(context, PP_CERTCHAIN, tooSmall.data(), &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(tooSmall, Bytes(10));
}

}  // namespace
}  // namespace e2e
