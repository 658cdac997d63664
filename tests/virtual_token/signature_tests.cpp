// Signatures with keys of every size, openssl's judged by the token; and the token's own, by openssl.
#include <algorithm>
#include <thread>

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

// Two libraries sign: each digest and padding finds the one that can. PKCS#1 leaves openssl one signature to accept.
TEST_F(VirtualTokenTest, OpensslAcceptsWhatTheTokenSigns) {
    for (const std::uint32_t type : {TALVIK_KEY_RSA_1024, TALVIK_KEY_RSA_3072}) {
        const Key key = generate(type, TALVIK_USAGE_SIGN);
        writeRsaKey(scratch(), "key", key.publicKey());
        const Bytes publicKey = read("key.der");
        for (const auto& [name, length] : {std::pair{"sha1", 20u}, {"sha256", 32u}, {"sha384", 48u}, {"sha512", 64u}}) {
            write("digest", pattern(length));
            for (const bool pss : {false, true}) {
                const Result signature = sign(key, pattern(length), pss);
                if (pss && type == TALVIK_KEY_RSA_1024 && length == 64) {
                    EXPECT_EQ(signature.status, Unsupported);
                    continue;
                }
                write("signature", signature.bytes);
                const std::string options =
                    name + std::string(pss ? " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest" : "");
                EXPECT_TRUE(
                    opensslAgrees("pkeyutl -verify -pubin -keyform DER -inkey key.der -in digest -sigfile "
                                  "signature -pkeyopt digest:" +
                                  options))
                    << type << options;
                EXPECT_EQ(verify(publicKey, pattern(length), signature.bytes, pss), 0) << type << options;
            }
        }
    }
}

TEST_F(VirtualTokenTest, ThreadsUseOneKeyWithEitherPadding) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_SIGN);
    writeRsaKey(scratch(), "key", key.publicKey());
    const Bytes publicKey = read("key.der");
    std::vector<std::jthread> threads;
    for (const std::size_t length : {32u, 48u, 32u, 48u}) {
        threads.emplace_back([&, digest = pattern(length)] {
            const Bytes expected = sign(key, digest).bytes;
            for (int i = 0; i < 50; ++i) {
                EXPECT_EQ(sign(key, digest).bytes, expected);
                EXPECT_EQ(verify(publicKey, digest, sign(key, digest, true).bytes, true), 0);
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(, SignatureTest, testing::ValuesIn(keys),
                         [](const testing::TestParamInfo<KeyRow>& row) { return row.param.name; });

}  // namespace
}  // namespace talvik_test
