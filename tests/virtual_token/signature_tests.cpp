// Signatures with keys of every size: openssl's judged by the token. Its own are judged by openssl in the tests that go
// through the provider.
#include <algorithm>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

struct KeyRow {
    const char* name;
    std::size_t signatureLength;
    bool isRsa;
    const char* opensslKey;  // arguments of openssl genpkey
};
constexpr KeyRow keys[] = {
    {"Rsa1024", 128, true, "-algorithm RSA -pkeyopt rsa_keygen_bits:1024"},
    {"Rsa2048", 256, true, "-algorithm RSA -pkeyopt rsa_keygen_bits:2048"},
    {"Rsa3072", 384, true, "-algorithm RSA -pkeyopt rsa_keygen_bits:3072"},
    {"Rsa4096", 512, true, "-algorithm RSA -pkeyopt rsa_keygen_bits:4096"},
    {"P256", 64, false, "-algorithm EC -pkeyopt ec_paramgen_curve:P-256"},
    {"P384", 96, false, "-algorithm EC -pkeyopt ec_paramgen_curve:P-384"},
    {"P521", 132, false, "-algorithm EC -pkeyopt ec_paramgen_curve:P-521"},
};

class SignatureTest : public VirtualTokenTest, public testing::WithParamInterface<KeyRow> {
  protected:
    Bytes readSignature() const {
        const Bytes der = read("signature");
        if (GetParam().isRsa) {
            return der;
        }
        // r and s, each at the end of its half.
        Bytes raw(GetParam().signatureLength);
        const auto half = static_cast<std::ptrdiff_t>(raw.size() / 2);
        auto number = der.begin() + (der[1] >= 0x80 ? 3 : 2);
        for (const auto end : {raw.begin() + half, raw.end()}) {
            const std::ptrdiff_t length = number[1], taken = std::min(length, half);
            number += 2 + length;
            std::copy(number - taken, number, end - taken);
        }
        return raw;
    }
};

TEST_P(SignatureTest, TheTokenAcceptsWhatOpensslSigns) {
    run("genpkey -out private.pem " + std::string(GetParam().opensslKey));
    run("pkey -in private.pem -pubout -outform DER -out key.der");
    const Bytes publicKey = read("key.der");
    for (const bool pss : {false, true}) {
        const Bytes digest = pattern(pss ? 32 : 48);
        write("digest", digest);
        const bool opensslPss = pss && GetParam().isRsa;
        run(std::string("pkeyutl -sign -inkey private.pem -out signature -in digest -pkeyopt digest:") +
            (pss ? "sha256" : "sha384") +
            (opensslPss ? " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest" : ""));
        Bytes signature = readSignature();
        EXPECT_EQ(verify(publicKey, digest, signature, opensslPss), 0);
        EXPECT_EQ(verify(publicKey, pattern(20), signature, opensslPss), BadSignature);
        if (GetParam().isRsa) {
            EXPECT_EQ(verify(publicKey, digest, signature, !pss), BadSignature);
        }
        signature.back() ^= 1;
        EXPECT_EQ(verify(publicKey, digest, signature, opensslPss), BadSignature);
    }
}

INSTANTIATE_TEST_SUITE_P(, SignatureTest, testing::ValuesIn(keys),
                         [](const testing::TestParamInfo<KeyRow>& row) { return row.param.name; });

}  // namespace
}  // namespace talvik_test
