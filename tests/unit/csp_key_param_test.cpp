#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspKeyParamTest : public ProviderTest {
  protected:
    CspKeyParamTest() {
        attachTokens({scripted::keyPair(0x11, 3, TALVIK_KEY_EC_P384)});
        acquire();
        ownKey("key", key);
        EXPECT_TRUE(CPGetUserKey(prov, AT_SIGNATURE, &key));
    }
    BOOL get(DWORD param, DWORD length = 600) {
        offer(length);
        return CPGetKeyParam(prov, key, param, data.data(), &size, 0xFF);
    }
    BOOL query(DWORD param) { return CPGetKeyParam(prov, key, param, nullptr, &size, 0); }

    HCRYPTKEY key = 0;
};

TEST_F(CspKeyParamTest, WordsFollowTheSizeRule) {
    for (const DWORD param : {KP_PERMISSIONS, KP_BLOCKLEN, KP_KEYLEN, KP_ALGID}) {
        show("size of " + number(param), [&] { return query(param); });
        showEach<DWORD>(number(param) + " in", {0, 1, 2, 3, 8}, [&](DWORD length) { return get(param, length); });
    }
    for (const std::uint32_t usage : {0, 1, 2, 3, 4}) {
        csp::keyOf(key)->keyUsage = usage;
        show("permissions of usage " + number(usage), [&] { return get(KP_PERMISSIONS); });
    }
}

TEST_F(CspKeyParamTest, Refusals) {
    showNulls("CPGetKeyParam", CPGetKeyParam, prov, key, KP_KEYLEN, data.data(), &size, 0);
    // A missing length is refused too, where it would be used, and never written through.
    showEach<DWORD>("no length for", {KP_PERMISSIONS, KP_ALGID, KP_CERTIFICATE, KP_IV},
                    [&](DWORD param) { return CPGetKeyParam(prov, key, param, data.data(), nullptr, 0); });
    attachToken({}, {scripted::certificateOf(scripted::keyPair(0x11), {1})});
    SHOW(CPGetKeyParam(prov, key, KP_CERTIFICATE, data.data(), nullptr, 0));
    showEach<DWORD>("CPGetKeyParam", {0, KP_IV, KP_SALT, 5, 10, 25, 27, 0xFFFFFFFF},
                    [&](DWORD param) { return query(param); });
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
    } const rows[] = {{"none", {}},
                      {"others only", {foreign, longerAlias, noAlias}},
                      {"by alias", {foreign, byAlias, byLabel}},
                      {"by label", {foreign, byLabel, byAlias}}};
    scripted::always("talvik_initDevice", {.status = 9});  // no matter
    for (const auto& row : rows) {
        attachToken({pair}, row.certificates);
        show(row.name, [&] { return query(KP_CERTIFICATE); });
    }
    showEach<DWORD>("by label in", {0, 5, 6}, [&](DWORD length) { return get(KP_CERTIFICATE, length); });
    attachToken({pair}, {byAlias});
    show("by alias", [&] { return get(KP_CERTIFICATE); });
    // One that lies about its length counts as its whole field.
    for (const std::uint32_t lie : {3073u, 0xFFFFFFFFu}) {
        byAlias.derLength = lie;
        attachToken({}, {byAlias});
        show("length " + number(lie), [&] { return query(KP_CERTIFICATE); });
    }
    csp::keyOf(key)->label[0] = '\0';
    attachToken({}, {foreign});
    show("no label is none in common", [&] { return query(KP_CERTIFICATE); });
}

class CspSetKeyParamTest : public CspKeyParamTest {
  protected:
    CspSetKeyParamTest() {
        state = [] {
            const IvSnapshot vector = sharedIv();
            return "iv " + hex(content(vector.data(), static_cast<std::size_t>(vector.length())));
        };
    }
    BOOL set(DWORD param, const Bytes& value, DWORD flags = 0) {
        return CPSetKeyParam(prov, key, param, value.data(), flags);
    }
    void showCertificate(const std::string& name, const Bytes& der) {
        show(name, [&] { return set(KP_CERTIFICATE, der); });
    }
};

TEST_F(CspSetKeyParamTest, MostParametersAreOnlyLogged) {
    for (const DWORD param : {KP_PADDING, KP_MODE, KP_PERMISSIONS})
        show("12345 for " + number(param), [&] { return set(param, {0x39, 0x30, 0, 0}, 7); });
    for (const DWORD param : std::initializer_list<DWORD>{KP_PADDING, KP_MODE, KP_PERMISSIONS, KP_SALT, 0, KP_ALGID, 5,
                                                          0xFFFFFFFF, KP_CERTIFICATE})
        show("nothing for " + number(param), [&] { return set(param, {}); });
}

TEST_F(CspSetKeyParamTest, TheVectorIsSharedAndItsLengthIsTheKeys) {
    const Bytes vector = bytes(16);
    for (const ALG_ID algorithm : {8704, 10, 11}) {
        csp::keyOf(key)->algId = algorithm;
        show("algorithm " + number(algorithm), [&] { return set(KP_IV, vector); });
    }
    showNulls("CPSetKeyParam", CPSetKeyParam, prov, key, KP_IV, vector.data(), 0);
}

TEST_F(CspSetKeyParamTest, CertificateLengthsComeFromTheirHeader) {
    setDevicePassword(DEVICE, "1234");
    for (const auto& [header, total] : {std::pair<Bytes, std::size_t>{{0x30, 0x00}, 2},
                                        {{0x30, 0x7F}, 129},
                                        {{0x30, 0x81, 0x80}, 131},
                                        {{0x30, 0x81, 0x00}, 3},
                                        {{0x30, 0x82, 0x04, 0xD2}, 1238},
                                        {{0x30, 0x82, 0x0B, 0xFC}, 3072},
                                        {{0x30, 0x83, 0x00, 0x01, 0x00}, 261}}) {
        Bytes der = bytes(total);
        std::ranges::copy(header, der.begin());
        showCertificate("length " + number(total), der);
    }
    // Nothing behind these headers is read.
    for (const Bytes& der : {Bytes{0x31, 0x03, 1, 1, 1},
                             {0x30, 0x80, 0, 0, 0},
                             {0x30, 0x84, 0, 0, 0, 1},
                             {0x30, 0xFF, 0, 0, 0, 1},
                             {0x30, 0x82, 0x0B, 0xFD},
                             {0x30, 0x82, 0xFF, 0xFF},
                             {0x30, 0x83, 0xFF, 0xFF, 0xFF}})
        showCertificate("header " + hex(der), der);
}

TEST_F(CspSetKeyParamTest, StoringACertificateLogsInOnce) {
    const Bytes der = {0x30, 0x03, 1, 2, 3};
    robot.enters("4321");
    showCertificate("asked for the PIN", der);
    EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), "4321");
    scripted::next("talvik_importCertificate", {.status = -5});
    showCertificate("refused by the token", der);
    clearDevicePassword(DEVICE);
    robot.cancels();
    showCertificate("given up", der);
    attachTokens({}, true);
    for (int i = 0; i < 2; ++i)
        showCertificate("under single sign-on", der);
    EXPECT_TRUE(isPasswordValidated(DEVICE));
}

}  // namespace
