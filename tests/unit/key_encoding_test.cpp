#include "token/key_encoding.h"

#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

TEST(KeyEncoding, HexTextToBytes) {
    const std::pair<const char*, Bytes> rows[] = {
        {"", {}},       {"0x", {}},     {"0X", {}},       {"0x1", {0x01}},        {"ABC", {0x0A, 0xBC}},
        {"zz", {0x00}}, {"0", {0x00}},  {"x1", {0x01}},   {"aF09", {0xAF, 0x09}}, {"0xABC", {0x0A, 0xBC}},
        {"g1", {0x01}}, {"1g", {0x10}}, {"0x0x", {0x00}}, {"1x2", {0x01, 0x02}}};
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(hexStringToBytes(text), expected) << text;
}

TEST(KeyEncoding, BytesToHexText) {
    const unsigned char value[] = {0x00, 0xAB, 0xFF};
    for (const auto& [count, text] : {std::pair{2, "00AB"}, {0, ""}, {-1, ""}})
        EXPECT_EQ(bytesToHexString(value, count), text);
    EXPECT_EQ(uintToHexString(0), "0");
    EXPECT_EQ(uintToHexString(0xABCDEF01), "abcdef01");
    EXPECT_EQ(uintToHexString(0x20), "20");
}

TEST(KeyEncoding, FixedWidthNumbers) {
    EXPECT_EQ(uintToBigEndianBytes(65537, 3), Bytes({1, 0, 1}));
    EXPECT_EQ(uintToBigEndianBytes(65537, 2), Bytes({0, 1}));
    EXPECT_EQ(uintToBigEndianBytes(-1, 3), Bytes({0, 0, 0}));
    EXPECT_EQ(uintToBigEndianBytes(INT_MIN, 4), Bytes({0, 0, 0, 0}));
    EXPECT_EQ(uintToBigEndianBytes(INT_MAX, 5), Bytes({0, 0x7F, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(uintToBigEndianBytes(1, 0), Bytes());
}

TEST(KeyEncoding, DerLengths) {
    const std::pair<std::uint64_t, Bytes> rows[] = {
        {0, {0}},
        {127, {0x7F}},
        {128, {0x81, 0x80}},
        {255, {0x81, 0xFF}},
        {256, {0x82, 1, 0}},
        {65535, {0x82, 0xFF, 0xFF}},
        {65536, {0x83, 1, 0, 0}},
        {0x100000000, {0x85, 1, 0, 0, 0, 0}},
        {UINT64_MAX, {0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}};
    for (const auto& [length, expected] : rows)
        EXPECT_EQ(derEncodeLength(length), expected) << length;
}

TEST(KeyEncoding, DerIntegersGuardTheTopBitAndStripNothing) {
    EXPECT_EQ(derEncodeInteger(Bytes{0x80}), Bytes({2, 2, 0, 0x80}));
    EXPECT_EQ(derEncodeInteger(Bytes{0x00, 0x80}), Bytes({2, 2, 0, 0x80}));
    EXPECT_EQ(derEncodeInteger(Bytes{0x7F}), Bytes({2, 1, 0x7F}));
    EXPECT_EQ(derEncodeInteger(Bytes{0, 0, 1}), Bytes({2, 3, 0, 0, 1}));
    EXPECT_EQ(derEncodeInteger(Bytes{}), Bytes({2, 0}));
    EXPECT_EQ(derEncodeTlv(0x30, filled(200, 7)).size(), 203u);
}

TEST(KeyEncoding, PublicKeyOf2048BitsHasItsKnownHead) {
    Bytes modulus = filled(256, 0xC1);
    const Bytes der = buildRsaPublicKeyDer(hex(modulus), "010001");
    EXPECT_EQ(der.size(), 294u);
    EXPECT_EQ(hex(content(der.data(), 33)), "30820122300d06092a864886f70d01010105000382010f003082010a0282010100");
    EXPECT_EQ(hex(Bytes(der.end() - 5, der.end())), "0203010001");
    EXPECT_EQ(buildRsaPublicKeyDerFromBytes(modulus, Bytes{1, 0, 1}), der);
    modulus[0] = 0x41;
    EXPECT_EQ(buildRsaPublicKeyDer(hex(modulus), "010001").size(), 293u);
}

TEST(KeyEncoding, OnlyTheFirstByteTellsDerFromModulus) {
    EXPECT_FALSE(isDerPublicKey(filled(256, 0xC1)));
    EXPECT_TRUE(isDerPublicKey(Bytes{0x30, 0xC1}));
    EXPECT_TRUE(isDerPublicKey(Bytes{}));
}

}  // namespace
