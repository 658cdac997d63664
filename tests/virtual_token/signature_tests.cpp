// Signatures with keys of every size: openssl's judged by the token. Its own are judged by openssl in the tests that go
// through the provider.
#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

struct KeyRow {
    const char* name;
    std::uint32_t type;
    std::size_t publicLength;  // of TalvikKeyPair::modulus
    std::size_t signatureLength;
    const char* opensslKey;  // arguments of openssl genpkey
    bool isRsa() const { return type <= TALVIK_KEY_RSA_4096; }
};
constexpr KeyRow keys[] = {
    {"Rsa1024", TALVIK_KEY_RSA_1024, 128, 128, "-algorithm RSA -pkeyopt rsa_keygen_bits:1024"},
    {"Rsa2048", TALVIK_KEY_RSA_2048, 256, 256, "-algorithm RSA -pkeyopt rsa_keygen_bits:2048"},
    {"Rsa3072", TALVIK_KEY_RSA_3072, 384, 384, "-algorithm RSA -pkeyopt rsa_keygen_bits:3072"},
    {"Rsa4096", TALVIK_KEY_RSA_4096, 512, 512, "-algorithm RSA -pkeyopt rsa_keygen_bits:4096"},
    {"P256", TALVIK_KEY_EC_P256, 91, 64, "-algorithm EC -pkeyopt ec_paramgen_curve:P-256"},
    {"P384", TALVIK_KEY_EC_P384, 120, 96, "-algorithm EC -pkeyopt ec_paramgen_curve:P-384"},
    {"P521", TALVIK_KEY_EC_P521, 158, 132, "-algorithm EC -pkeyopt ec_paramgen_curve:P-521"},
};

class SignatureTest : public VirtualTokenTest, public testing::WithParamInterface<KeyRow> {
  protected:
    Bytes readSignature() const {
        const Bytes der = scratch.read("signature");
        if (GetParam().isRsa()) {
            return der;
        }
        const std::size_t half = GetParam().signatureLength / 2;
        Bytes raw(2 * half);
        std::size_t at = der[1] >= 0x80 ? 3 : 2;
        for (const std::size_t end : {half, 2 * half}) {
            const std::size_t length = der[at + 1], guard = length > half ? length - half : 0;
            std::copy(der.begin() + static_cast<std::ptrdiff_t>(at + 2 + guard),
                      der.begin() + static_cast<std::ptrdiff_t>(at + 2 + length),
                      raw.begin() + static_cast<std::ptrdiff_t>(end - (length - guard)));
            at += 2 + length;
        }
        return raw;
    }
};

TEST_P(SignatureTest, TheTokenRefusesItsOwnWhenDamaged) {
    const Key key = generate(GetParam().type, TALVIK_USAGE_SIGN);
    ASSERT_EQ(key.status, 0);
    EXPECT_EQ(key.record.modulusLength, GetParam().publicLength);
    const Bytes publicKey = publicKeyFile(key), digest = pattern(32);
    Result signature = sign(key, digest);
    EXPECT_EQ(signature.bytes.size(), GetParam().signatureLength);
    EXPECT_EQ(verify(publicKey, digest, signature.bytes), 0);
    EXPECT_EQ(verify(publicKey, digest, sign(key, digest, true).bytes, true), 0);
    signature.bytes.back() ^= 1;
    EXPECT_EQ(verify(publicKey, digest, signature.bytes), BadSignature);
    EXPECT_EQ(sign(key, pattern(16)).status, Unsupported);
}

TEST_P(SignatureTest, TheTokenAcceptsWhatOpensslSigns) {
    openssl(scratch, "genpkey -out private.pem " + std::string(GetParam().opensslKey));
    openssl(scratch, "pkey -in private.pem -pubout -outform DER -out key.der");
    const Bytes publicKey = scratch.read("key.der");
    for (const bool pss : {false, true}) {
        const Bytes digest = pattern(pss ? 32 : 48);
        scratch.write("digest", digest);
        const bool opensslPss = pss && GetParam().isRsa();
        openssl(scratch, std::string("pkeyutl -sign -inkey private.pem -out signature -in digest -pkeyopt digest:") +
                             (pss ? "sha256" : "sha384") +
                             (opensslPss ? " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest" : ""));
        const Bytes signature = readSignature();
        EXPECT_EQ(verify(publicKey, digest, signature, opensslPss), 0);
        EXPECT_EQ(verify(publicKey, pattern(20), signature, opensslPss), BadSignature);
        if (GetParam().isRsa()) {
            EXPECT_EQ(verify(publicKey, digest, signature, !pss), BadSignature);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, SignatureTest, testing::ValuesIn(keys),
                         [](const testing::TestParamInfo<KeyRow>& row) { return row.param.name; });

}  // namespace
}  // namespace talvik_test
