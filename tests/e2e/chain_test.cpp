// A key's certificate, and the chain of its container as openssl reads it.
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
    void store(const Bytes& der) {
        TalvikCertificate certificate{};
        std::copy(der.begin(), der.end(), certificate.der);
        certificate.derLength = static_cast<std::uint32_t>(der.size());
        EXPECT_EQ(talvik_importCertificate(token().c_str(), pin, &certificate, nullptr), 0);
    }
    static std::string subjectsOf(const Context& context) {
        write("chain", delivered([&](BYTE* data, DWORD* size) {
                  return CryptGetProvParam(context, PP_CERTCHAIN, data, size, 0);
              }));
        std::string subjects;
        const std::string printed = run("pkcs7 -inform DER -in chain -print_certs");
        for (const std::string subject : {"Leaf", "Intermediate", "Root"}) {
            const Bytes pem = read(subject + ".pem");
            subjects += printed.find(std::string(pem.begin(), pem.end())) != std::string::npos ? subject + ' ' : "";
        }
        return subjects;
    }
};

TEST_F(Chain, HoldsLeafIntermediateAndRootWhateverTheirOrderOnTheToken) {
    const Context context = acquire(makeKeyPair(token(), TALVIK_KEY_RSA_2048, TALVIK_USAGE_BOTH));
    const Bytes root = certificate("Root", "-signkey Root.key");
    const Bytes intermediate = certificate("Intermediate", "-CA Root.pem -CAkey Root.key");
    const Bytes leaf =
        certificate("Leaf", "-CA Intermediate.pem -CAkey Intermediate.key -force_pubkey public.der -keyform DER");
    givePin(context);
    const auto stored = [&] {
        return delivered([key = userKey(context)](BYTE* data, DWORD* size) {
            return CryptGetKeyParam(key, KP_CERTIFICATE, data, size, 0);
        });
    };
    EXPECT_EQ(stored(), Bytes());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_FOUND));
    DWORD size = 0;
    EXPECT_EQ(errorOf(CryptGetProvParam(context, PP_CERTCHAIN, nullptr, &size, 0)), NTE_NO_KEY);

    // The root comes before the leaf here, and after it when the leaf is stored again.
    store(intermediate);
    ASSERT_TRUE(CryptSetKeyParam(userKey(context), KP_CERTIFICATE, leaf.data(), 0));
    EXPECT_EQ(stored(), leaf);
    EXPECT_EQ(subjectsOf(context), "Leaf Intermediate ");
    store(root);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(subjectsOf(context), "Leaf Intermediate Root ");
        ASSERT_TRUE(CryptSetKeyParam(userKey(context), KP_CERTIFICATE, leaf.data(), 0));
    }
}

}  // namespace
}  // namespace e2e
