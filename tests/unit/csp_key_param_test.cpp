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
    Call get(DWORD param, DWORD room) {
        return [=, this] {
            offer(room);
            return CPGetKeyParam(prov, key, param, data.data(), &size, 0xFF);
        };
    }
    Call query(DWORD param, DWORD room = UNTOUCHED) {
        return [=, this] {
            offer(room);
            return CPGetKeyParam(prov, key, param, nullptr, &size, 0);
        };
    }

    HCRYPTPROV prov = 0;
    HCRYPTKEY key = 0;
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
        for (const Call& call : {query(row.param, 0), query(row.param), get(row.param, 0)}) {
            expectSuccess(call, head(row.param) + row.asked);
            EXPECT_TRUE(isOnlyTold(4));
        }
        for (const DWORD room : {1u, 2u, 3u}) {
            expectFailure(get(row.param, room), ERROR_MORE_DATA,
                          head(row.param) +
                              ("ERROR CPGetKeyParam - Output buffer length for " + row.tooSmall + " not enough : 4"));
            EXPECT_TRUE(isOnlyTold(4));
        }
        expectSuccess(get(row.param, 8), head(row.param) + row.written);
        EXPECT_EQ(delivered(), words({row.expected}));
    }
}

TEST_F(CspKeyParamTest, PermissionsFollowTheUsage) {
    for (const std::uint32_t usage : {0u, 1u, 2u, 3u, 4u}) {
        csp::keyOf(key)->keyUsage = usage;
        EXPECT_TRUE(get(KP_PERMISSIONS, 4)());
        EXPECT_EQ(delivered(), words({usage == 2 || usage == 3 ? CRYPT_DECRYPT : 0u})) << usage;
    }
}

TEST_F(CspKeyParamTest, Refusals) {
    const auto refused = refusalsOf("CPGetKeyParam", CPGetKeyParam);
    const std::string context = "CPGetKeyParam: context is null or not initialized";
    size = 8;
    refused(NTE_BAD_UID, context, 0, key, KP_KEYLEN, nullptr, &size, 0);
    refused(NTE_BAD_UID, context, invalid, 0, KP_KEYLEN, nullptr, &size, 0);
    refused(NTE_BAD_KEY, "CPGetKeyParam: key handle is null", prov, 0, KP_KEYLEN, nullptr, &size, 0);
    // A missing length is refused too, where it would be used, and never written through.
    BYTE some[4];
    for (const DWORD param : {KP_PERMISSIONS, KP_ALGID, KP_KEYLEN})
        refused(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pcbDataLen is null", prov, key, param, some, nullptr, 0);
    for (DWORD* const length : {&size, static_cast<DWORD*>(nullptr)})
        for (const DWORD param : std::initializer_list<DWORD>{0, KP_IV, KP_SALT, 5, 10, 25, 27, 0xFFFFFFFF})
            refused(NTE_BAD_TYPE, "CPGetKeyParam - unsupported input : " + number(param), prov, key, param, nullptr,
                    length, 0);
    const Call certificate = [&] { return CPGetKeyParam(prov, key, KP_CERTIFICATE, some, nullptr, 0); };
    attachToken({});
    expectError(certificate, NTE_NOT_FOUND, "ERROR CPGetKeyParam - Certificate not found");
    attachToken({}, {scripted::certificateOf(scripted::keyPair(0x11), {1})});
    expectError(certificate, ERROR_INVALID_PARAMETER, "ERROR CPGetKeyParam: pcbDataLen is null");
    EXPECT_EQ(size, 8u);
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
    const Lines calls = {"talvik_initDevice(\"T1\", true, null)", CERTIFICATE_LIST};
    scripted::always("talvik_initDevice", {.status = 9});  // no matter
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        attachToken({pair}, row.certificates);
        if (!row.expected) {
            expectFailure(query(KP_CERTIFICATE), NTE_NOT_FOUND,
                          head(KP_CERTIFICATE) + "ERROR CPGetKeyParam - Certificate not found", calls);
            EXPECT_TRUE(isOnlyTold(UNTOUCHED));
            continue;
        }
        const auto length = static_cast<DWORD>(row.expected->size());
        for (const Call& call : {query(KP_CERTIFICATE), get(KP_CERTIFICATE, 0)}) {
            expectSuccess(call, head(KP_CERTIFICATE), calls);
            EXPECT_TRUE(isOnlyTold(length));
        }
        expectFailure(get(KP_CERTIFICATE, length - 1), ERROR_MORE_DATA,
                      head(KP_CERTIFICATE) +
                          ("ERROR CPGetKeyParam - Output buffer length for certificate not enough : " + number(length)),
                      calls);
        EXPECT_TRUE(isOnlyTold(length));
        expectSuccess(get(KP_CERTIFICATE, length), head(KP_CERTIFICATE), calls);
        EXPECT_EQ(delivered(), *row.expected);
    }
    // One that lies about its length counts as its whole field.
    for (const std::uint32_t lie : {3073u, 0xFFFFFFFFu}) {
        byAlias.derLength = lie;
        attachToken({}, {byAlias});
        EXPECT_TRUE(query(KP_CERTIFICATE)());
        EXPECT_TRUE(isOnlyTold(3072));
    }
    // No label is none in common.
    csp::keyOf(key)->label[0] = '\0';
    attachToken({}, {foreign});
    EXPECT_FALSE(query(KP_CERTIFICATE)());
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
    void expectStored(const Bytes& der, const Lines& calls) {
        expectSuccess(set(KP_CERTIFICATE, der),
                      setHead(KP_CERTIFICATE) +
                          ("DEBUG CPSetKeyParam: KP_CERTIFICATE DER length=" + number(der.size())) +
                          "DEBUG CPSetKeyParam: KP_CERTIFICATE imported successfully",
                      calls);
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
    expectSuccess(set(KP_IV, bytes(16)), setHead(KP_IV));
    EXPECT_EQ(currentVector(), Bytes());
    for (const auto& [algorithm, length] : {std::pair<ALG_ID, std::size_t>{10, 16}, {11, 8}}) {
        csp::keyOf(key)->algId = algorithm;
        EXPECT_TRUE(set(KP_IV, bytes(16))());
        EXPECT_EQ(currentVector(), bytes(length));
        EXPECT_EQ(log.entries().back(), "DEBUG Set key param key algo : " + number(algorithm));
    }
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
    for (const auto& [header, total] : rows)
        expectStored(certificate(header, total), {import("1234", certificate(header, total))});
}

TEST_F(CspSetKeyParamTest, Refusals) {
    const std::string prefix = "CPSetKeyParam: KP_CERTIFICATE ";
    const auto set = refusalsOf("CPSetKeyParam", CPSetKeyParam);
    const std::string context = "CPSetKeyParam: context is null or not initialized";
    set(NTE_BAD_UID, context, 0, key, KP_IV, data.data(), 0);
    set(NTE_BAD_UID, context, invalid, 0, KP_IV, data.data(), 0);
    set(NTE_BAD_KEY, "CPSetKeyParam: key handle is null", prov, 0, KP_IV, data.data(), 0);
    set(ERROR_INVALID_PARAMETER, prefix + "pbData is null", prov, key, KP_CERTIFICATE, nullptr, 0);
    csp::keyOf(key)->algId = 10;
    set(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_IV pbData is null", prov, key, KP_IV, nullptr, 0);
    const std::string encoding = "unsupported DER length encoding", large = "certificate too large";
    const std::pair<Bytes, std::string> rows[] = {{{0x31, 0x03, 1, 1, 1}, "invalid DER (not a SEQUENCE)"},
                                                  {{0x30, 0x80, 0, 0, 0}, encoding},
                                                  {{0x30, 0x84, 0, 0, 0, 1}, encoding},
                                                  {{0x30, 0xFF, 0, 0, 0, 1}, encoding},
                                                  // Nothing behind these headers is read.
                                                  {{0x30, 0x82, 0x0B, 0xFD}, large},
                                                  {{0x30, 0x82, 0xFF, 0xFF}, large},
                                                  {{0x30, 0x83, 0xFF, 0xFF, 0xFF}, large}};
    for (const auto& [der, text] : rows)
        set(NTE_BAD_DATA, prefix + text, prov, key, KP_CERTIFICATE, der.data(), 0);
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
        expectStored(der, {TOKEN_INFO, import("", der)});
    EXPECT_TRUE(isPasswordValidated(DEVICE));
}

}  // namespace
