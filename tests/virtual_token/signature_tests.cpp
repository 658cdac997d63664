// Signatures of every key size with every digest, judged by openssl, and openssl's judged by the token.
#include <array>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

struct DigestRow {
    const char* name;
    std::size_t length;
};
constexpr DigestRow digests[] = {{"sha1", 20}, {"sha256", 32}, {"sha384", 48}, {"sha512", 64}};

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
    std::string options(const DigestRow& digest, bool pss) const {
        std::string text = " -in digest -pkeyopt digest:" + std::string(digest.name);
        if (pss) {
            text += " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest";
        }
        return text;
    }

    // openssl wants an ECDSA signature as SEQUENCE { r, s }.
    void writeSignature(const Bytes& signature) const {
        if (GetParam().isRsa()) {
            scratch.write("signature", signature);
            return;
        }
        const std::string hex = hexOf(signature);
        scratch.write("ecdsa.cnf", bytesOf("asn1=SEQUENCE:s\n[s]\nr=INTEGER:0x" + hex.substr(0, hex.size() / 2) +
                                           "\ns=INTEGER:0x" + hex.substr(hex.size() / 2) + "\n"));
        openssl(scratch, "asn1parse -genconf ecdsa.cnf -noout -out signature");
    }

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

TEST_P(SignatureTest, OpensslAcceptsWhatTheTokenSigns) {
    const Key key = generate(GetParam().type, TALVIK_USAGE_SIGN);
    ASSERT_EQ(key.status, 0);
    EXPECT_EQ(key.record.modulusLength, GetParam().publicLength);
    const Bytes publicKey = publicKeyFile(key);
    for (const DigestRow& row : digests) {
        for (const bool pss : {false, true}) {
            SCOPED_TRACE(std::string(row.name) + (pss ? " pss" : ""));
            const Bytes digest = pattern(row.length);
            Result signature = sign(key, digest, pss);
            if (pss && GetParam().type == TALVIK_KEY_RSA_1024 && row.length == 64) {
                EXPECT_EQ(signature.status, Unsupported);  // digest and salt do not fit
                continue;
            }
            ASSERT_EQ(signature.status, 0);
            EXPECT_EQ(signature.bytes.size(), GetParam().signatureLength);
            scratch.write("digest", digest);
            writeSignature(signature.bytes);
            EXPECT_NO_THROW(openssl(scratch, "pkeyutl -verify -pubin -inkey key.pem -sigfile signature" +
                                                 options(row, pss && GetParam().isRsa())));
            EXPECT_EQ(verify(publicKey, digest, signature.bytes, pss), 0);
            signature.bytes.back() ^= 1;
            EXPECT_EQ(verify(publicKey, digest, signature.bytes, pss), BadSignature);
        }
    }
    EXPECT_EQ(sign(key, pattern(16)).status, Unsupported);
}

TEST_P(SignatureTest, TheTokenAcceptsWhatOpensslSigns) {
    openssl(scratch, "genpkey -out private.pem " + std::string(GetParam().opensslKey));
    openssl(scratch, "pkey -in private.pem -pubout -outform DER -out key.der");
    const Bytes publicKey = scratch.read("key.der");
    for (const bool pss : {false, true}) {
        const DigestRow& row = digests[pss ? 1 : 2];
        const Bytes digest = pattern(row.length);
        scratch.write("digest", digest);
        const bool opensslPss = pss && GetParam().isRsa();
        openssl(scratch, "pkeyutl -sign -inkey private.pem -out signature" + options(row, opensslPss));
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
