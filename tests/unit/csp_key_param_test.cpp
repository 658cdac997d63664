#include "csp/key.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspKeyParamTest : public ProviderTest {
  protected:
    CspKeyParamTest() {
        attachTokens({scripted::keyPair(0x11, 3, TALVIK_KEY_EC_P384)});
        prov = acquire();
        EXPECT_TRUE(CPGetUserKey(prov, AT_SIGNATURE, &key));
        forgetSoFar();
    }
    ~CspKeyParamTest() override { EXPECT_TRUE(CPDestroyKey(prov, key)); }
    Lines head(DWORD param) {
        return {"DEBUG CPGetKeyParam", "DEBUG CPGetKeyParam - dwparam : " + number(param),
                "DEBUG CPGetKeyParam - key id : " + ONE};
    }
    Call get(DWORD param) {
        return [=, this] { return CPGetKeyParam(prov, key, param, value.data(), &size, 0xFF); };
    }
    Call query(DWORD param) {
        return [=, this] { return CPGetKeyParam(prov, key, param, nullptr, &size, 0); };
    }
    DWORD word() const {
        DWORD answered;
        std::memcpy(&answered, value.data(), 4);
        return answered;
    }

    HCRYPTPROV prov = 0;
    HCRYPTKEY key = 0;
    Bytes value = filled(8, 0xCD);
    DWORD size = 8;
};

TEST_F(CspKeyParamTest, WordsFollowTheSizeRule) {
    struct {
        DWORD param, expected;
        std::string tooSmall;
        Lines asked = {}, written = {};
    } const rows[] = {{KP_PERMISSIONS, CRYPT_DECRYPT, "permission"},
                      {KP_BLOCKLEN, 384, "blocklen"},
                      {KP_KEYLEN, 384, "blocklen"},
                      {KP_ALGID,
                       0x2200,
                       "alg",
                       {"DEBUG CPGetKeyParam - input for alg id is null"},
                       {"DEBUG CPGetKeyParam - copying alg id : 8704"}}};
    for (const auto& row : rows) {
        for (const auto& [call, room] :
             {std::pair<Call, DWORD>{query(row.param), 0}, {query(row.param), UNTOUCHED}, {get(row.param), 0}}) {
            size = room;
            expectSuccess(call, head(row.param) + row.asked);
            EXPECT_EQ(size, 4u);
        }
        for (const DWORD room : {1u, 2u, 3u}) {
            size = room;
            expectFailure(get(row.param), ERROR_MORE_DATA,
                          head(row.param) +
                              ("ERROR CPGetKeyParam - Output buffer length for " + row.tooSmall + " not enough : 4"));
            EXPECT_EQ(size, 4u);
        }
        EXPECT_EQ(value, filled(8, 0xCD));
        size = 8;
        expectSuccess(get(row.param), head(row.param) + row.written);
        EXPECT_EQ(size, 4u);
        EXPECT_EQ(std::exchange(value, filled(8, 0xCD)), words({row.expected}) + filled(4, 0xCD));
    }
}

TEST_F(CspKeyParamTest, PermissionsFollowTheUsage) {
    for (const std::uint32_t usage : {0u, 1u, 2u, 3u, 4u}) {
        csp::keyOf(key)->keyUsage = usage;
        size = 4;
        EXPECT_TRUE(get(KP_PERMISSIONS)());
        EXPECT_EQ(word(), usage == 2 || usage == 3 ? CRYPT_DECRYPT : 0u) << usage;
    }
}

TEST_F(CspKeyParamTest, Refusals) {
    std::vector<Refusal> refusals = {{[&] { return CPGetKeyParam(0, key, KP_KEYLEN, nullptr, &size, 0); }, NTE_BAD_UID,
                                      "CPGetKeyParam: context is null or not initialized"},
                                     {[&] { return CPGetKeyParam(invalid, 0, KP_KEYLEN, nullptr, &size, 0); },
                                      NTE_BAD_UID, "CPGetKeyParam: context is null or not initialized"},
                                     {[&] { return CPGetKeyParam(prov, 0, KP_KEYLEN, nullptr, &size, 0); }, NTE_BAD_KEY,
                                      "CPGetKeyParam: key handle is null"}};
    for (const DWORD param : std::initializer_list<DWORD>{0, KP_IV, KP_SALT, 5, 10, 25, 27, 0xFFFFFFFF})
        refusals.push_back({query(param), NTE_BAD_TYPE, "CPGetKeyParam - unsupported input : " + number(param)});
    expectRefusals("CPGetKeyParam", refusals);
    EXPECT_EQ(size, 8u);
    // A missing length is refused too, never written through.
    for (const DWORD param : {KP_PERMISSIONS, KP_ALGID, KP_KEYLEN, KP_CERTIFICATE}) {
        EXPECT_FALSE(CPGetKeyParam(prov, key, param, value.data(), nullptr, 0));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
        EXPECT_THAT(ofLevel(log.take(), "ERROR"), Not(IsEmpty()));
    }
}

TEST_F(CspKeyParamTest, CertificatesAreFoundByLabelOrAlias) {
    const TalvikKeyPair pair = scripted::keyPair(0x11), other = scripted::keyPair(0x22);
    TalvikCertificate byAlias = scripted::certificateOf(pair, bytes(5));
    TalvikCertificate byLabel = scripted::certificateOf(other, bytes(6, 0x40));
    std::strcpy(byLabel.label, "label 17");
    TalvikCertificate foreign = scripted::certificateOf(other, bytes(7));
    TalvikCertificate longerAlias = byAlias;
    longerAlias.keyAliasLength = 2;
    TalvikCertificate noAlias = foreign;
    noAlias.keyAliasLength = 0;
    struct {
        const char* name;
        std::vector<TalvikCertificate> certificates;
        std::optional<Bytes> expected;
    } const rows[] = {{"none", {}, std::nullopt},
                      {"others only", {foreign, longerAlias, noAlias}, std::nullopt},
                      {"by alias", {foreign, byAlias, byLabel}, bytes(5)},
                      {"by label", {foreign, byLabel, byAlias}, bytes(6, 0x40)}};
    const Lines calls = {"talvik_initDevice(\"T1\", true, null)", "talvik_getCertificateList(\"T1\", null)"};
    scripted::always("talvik_initDevice", {.status = 9});  // no matter
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        scripted::attach({{DEVICE, {scripted::tokenInfo("one"), {pair}, row.certificates, {}}}});
        size = UNTOUCHED;
        if (!row.expected) {
            expectFailure(query(KP_CERTIFICATE), NTE_NOT_FOUND,
                          head(KP_CERTIFICATE) + "ERROR CPGetKeyParam - Certificate not found", calls);
            EXPECT_EQ(size, UNTOUCHED);
            continue;
        }
        const auto length = static_cast<DWORD>(row.expected->size());
        expectSuccess(query(KP_CERTIFICATE), head(KP_CERTIFICATE), calls);
        EXPECT_EQ(size, length);
        value = filled(8, 0xCD);
        size = 0;
        expectSuccess(get(KP_CERTIFICATE), head(KP_CERTIFICATE), calls);
        EXPECT_EQ(size, length);
        size = length - 1;
        expectFailure(get(KP_CERTIFICATE), ERROR_MORE_DATA,
                      head(KP_CERTIFICATE) +
                          ("ERROR CPGetKeyParam - Output buffer length for certificate not enough : " + number(length)),
                      calls);
        EXPECT_EQ(size, length);
        EXPECT_EQ(value, filled(8, 0xCD));
        size = 8;
        expectSuccess(get(KP_CERTIFICATE), head(KP_CERTIFICATE), calls);
        EXPECT_EQ(content(value.data(), length), *row.expected);
        EXPECT_EQ(value[length], 0xCD);
    }
}

TEST_F(CspKeyParamTest, ALyingCertificateGivesItsWholeField) {
    TalvikCertificate certificate = scripted::certificateOf(scripted::keyPair(0x11), filled(3072, 0x30));
    for (const std::uint32_t lie : {3073u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        certificate.derLength = lie;
        scripted::attach({{DEVICE, {scripted::tokenInfo("one"), {}, {certificate}, {}}}});
        size = 0;
        EXPECT_TRUE(query(KP_CERTIFICATE)());
        EXPECT_EQ(size, 3072u);
        value = filled(3073, 0xCD);
        size = 3073;
        EXPECT_TRUE(get(KP_CERTIFICATE)());
        EXPECT_EQ(value[3071], 0x30);
        EXPECT_EQ(value[3072], 0xCD);
    }
}

class CspSetKeyParamTest : public CspKeyParamTest {
  protected:
    Lines setHead(DWORD param, DWORD flags = 0) {
        return {"DEBUG CPSetKeyParam", "DEBUG Set key param key id : " + ONE,
                "DEBUG Set key param  dwParam : " + number(param), "DEBUG Set key param  dwFlags : " + number(flags),
                "DEBUG Set key param key algo : 8704"};
    }
    Call set(DWORD param, const Bytes& data, DWORD flags = 0) {
        return [=, this] { return CPSetKeyParam(prov, key, param, data.data(), flags); };
    }
    Call clear(DWORD param) {
        return [=, this] { return CPSetKeyParam(prov, key, param, nullptr, 0); };
    }
    // A SEQUENCE that says with `header` that it is `total` bytes long.
    static Bytes certificate(const Bytes& header, std::size_t total) {
        Bytes der = bytes(total);
        std::ranges::copy(header, der.begin());
        return der;
    }
    static std::string import(const std::string& pin, const Bytes& der) {
        return "talvik_importCertificate(\"T1\", \"" + pin + "\", {keyId=" + std::string(32, '1') + " der=" + hex(der) +
               "/" + number(der.size()) + " keyAlias=11/1 label=\"label 17\"}, null)";
    }
};

TEST_F(CspSetKeyParamTest, MostParametersAreOnlyLogged) {
    const Bytes data = {0x39, 0x30, 0, 0};
    const std::pair<DWORD, const char*> named[] = {
        {KP_PADDING, "KP_PADDING"}, {KP_MODE, "KP_MODE"}, {KP_PERMISSIONS, "KP_PERMISSIONS"}};
    for (const auto& [param, name] : named) {
        expectSuccess(set(param, data, 7),
                      setHead(param, 7) + (std::string("DEBUG CPSetKeyParam: ") + name + " = 12345"));
        expectSuccess(clear(param), setHead(param));
    }
    for (const DWORD param : std::initializer_list<DWORD>{KP_SALT, 0, KP_ALGID, 5, 0xFFFFFFFF})
        expectSuccess(clear(param), setHead(param) + ("DEBUG CPSetKeyParam: unhandled dwParam=" + number(param)));
}

Bytes currentVector() {
    const IvSnapshot vector = sharedIv();
    return {vector.data(), vector.data() + vector.length()};
}

TEST_F(CspSetKeyParamTest, TheVectorIsSharedAndItsLengthIsTheKeys) {
    const Bytes data = bytes(16);
    expectSuccess(set(KP_IV, data), setHead(KP_IV));
    EXPECT_EQ(currentVector(), Bytes());
    csp::keyOf(key)->algId = 10;
    EXPECT_TRUE(set(KP_IV, data)());
    EXPECT_EQ(currentVector(), bytes(16));
    csp::keyOf(key)->algId = 11;
    EXPECT_TRUE(set(KP_IV, data)());
    EXPECT_EQ(currentVector(), bytes(8));
    EXPECT_EQ(log.entries().back(), "DEBUG Set key param key algo : 11");
    EXPECT_FALSE(clear(KP_IV)());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(currentVector(), bytes(8));
}

TEST_F(CspSetKeyParamTest, CertificateLengthsComeFromTheirHeader) {
    const std::pair<Bytes, std::size_t> rows[] = {{{0x30, 0x00}, 2},
                                                  {{0x30, 0x7F}, 129},
                                                  {{0x30, 0x81, 0x80}, 131},
                                                  {{0x30, 0x81, 0x00}, 3},
                                                  {{0x30, 0x82, 0x04, 0xD2}, 1238},
                                                  {{0x30, 0x82, 0x0B, 0xFC}, 3072},
                                                  {{0x30, 0x83, 0x00, 0x01, 0x00}, 261}};
    setDevicePassword(DEVICE, "1234");
    for (const auto& [header, total] : rows) {
        const Bytes der = certificate(header, total);
        expectSuccess(set(KP_CERTIFICATE, der),
                      setHead(KP_CERTIFICATE) + Lines{"DEBUG CPSetKeyParam: KP_CERTIFICATE DER length=" + number(total),
                                                      "DEBUG CPSetKeyParam: KP_CERTIFICATE imported successfully"},
                      {import("1234", der)});
    }
}

TEST_F(CspSetKeyParamTest, Refusals) {
    const std::string prefix = "CPSetKeyParam: KP_CERTIFICATE ";
    const auto refused = [&](const Bytes& der, ErrorCode error, const std::string& text) {
        return Refusal{set(KP_CERTIFICATE, der), error, prefix + text};
    };
    expectRefusals("CPSetKeyParam", {{[&] { return CPSetKeyParam(0, key, KP_IV, value.data(), 0); }, NTE_BAD_UID,
                                      "CPSetKeyParam: context is null or not initialized"},
                                     {[&] { return CPSetKeyParam(invalid, 0, KP_IV, value.data(), 0); }, NTE_BAD_UID,
                                      "CPSetKeyParam: context is null or not initialized"},
                                     {[&] { return CPSetKeyParam(prov, 0, KP_IV, value.data(), 0); }, NTE_BAD_KEY,
                                      "CPSetKeyParam: key handle is null"},
                                     {clear(KP_CERTIFICATE), ERROR_INVALID_PARAMETER, prefix + "pbData is null"},
                                     refused({0x31, 0x03, 1, 1, 1}, NTE_BAD_DATA, "invalid DER (not a SEQUENCE)"),
                                     refused({0x30, 0x80, 0, 0, 0}, NTE_BAD_DATA, "unsupported DER length encoding"),
                                     refused({0x30, 0x84, 0, 0, 0, 1}, NTE_BAD_DATA, "unsupported DER length encoding"),
                                     refused({0x30, 0xFF, 0, 0, 0, 1}, NTE_BAD_DATA, "unsupported DER length encoding"),
                                     // Nothing behind these headers is read.
                                     refused({0x30, 0x82, 0x0B, 0xFD}, NTE_BAD_DATA, "certificate too large"),
                                     refused({0x30, 0x82, 0xFF, 0xFF}, NTE_BAD_DATA, "certificate too large"),
                                     refused({0x30, 0x83, 0xFF, 0xFF, 0xFF}, NTE_BAD_DATA, "certificate too large")});
}

TEST_F(CspSetKeyParamTest, StoringACertificateLogsInOnce) {
    const Bytes der = certificate({0x30, 0x03}, 5);
    robot.enters("4321");
    EXPECT_TRUE(set(KP_CERTIFICATE, der)());
    EXPECT_EQ(scripted::takeCalls(), Lines({TOKEN_INFO, validation("4321"), import("4321", der)}));
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "4321");
    scripted::next("talvik_importCertificate", {.status = -5});
    expectFailure(set(KP_CERTIFICATE, der), NTE_FAIL,
                  setHead(KP_CERTIFICATE) + Lines{"DEBUG CPSetKeyParam: KP_CERTIFICATE DER length=5",
                                                  "ERROR CPSetKeyParam: KP_CERTIFICATE import failed ret=-5"},
                  {import("4321", der)});

    clearDevicePassword(DEVICE);
    robot.cancels();
    expectError(set(KP_CERTIFICATE, der), NTE_FAIL, "ERROR CPSetKeyParam: KP_CERTIFICATE login failed");
    EXPECT_EQ(scripted::callCount("talvik_importCertificate"), 2);
}

TEST_F(CspSetKeyParamTest, SingleSignOnStoresWithAnEmptyPin) {
    attachTokens({}, true);
    const Bytes der = certificate({0x30, 0x03}, 5);
    for (int i = 0; i < 2; ++i)
        expectSuccess(set(KP_CERTIFICATE, der),
                      setHead(KP_CERTIFICATE) + Lines{"DEBUG CPSetKeyParam: KP_CERTIFICATE DER length=5",
                                                      "DEBUG CPSetKeyParam: KP_CERTIFICATE imported successfully"},
                      {TOKEN_INFO, import("", der)});
    EXPECT_TRUE(isPasswordValidated(DEVICE));
}

}  // namespace
