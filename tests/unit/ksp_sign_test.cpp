#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

const Bytes HASH = bytes(32);

class KspSign : public KspTest {
  protected:
    SECURITY_STATUS sign(DWORD flags = BCRYPT_PAD_PKCS1, DWORD room = 512) {
        return ksp.SignHash(hProv, key, nullptr, hash, 32, data.data(), room, &size, flags);
    }
    SECURITY_STATUS verify(DWORD flags = 0) {
        return ksp.VerifySignature(hProv, key, nullptr, hash, 32, signature, 5, flags);
    }

    BYTE* const hash = const_cast<BYTE*>(HASH.data());
    BYTE signature[5] = {1, 2, 3, 4, 5};
};

TEST_F(KspSign, SignsWithThePaddingOfTheFlags) {
    openOnlyKey();
    scripted::always("talvik_signHash", {.output = filled(256, 0x5A)});
    showEach<DWORD>("flags", {0, BCRYPT_PAD_PKCS1, BCRYPT_PAD_PSS, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1},
                    [&](DWORD flags) { return sign(flags, 256); });
    showLies("talvik_signHash", [&] { return sign(); }, {1025});
    showPinHandling("talvik_signHash", [&](DWORD flags) { return sign(flags); });
}

// The size is that of the key's length, also where the signature is longer: that shows only when it is there.
TEST_F(KspSign, AnswersTheSizeFirstAndTheTrueLengthAfterwards) {
    const auto each = [&](const std::string& name, const std::function<long(DWORD told, DWORD made)>& call) {
        for (const auto& [keyType, told, made] :
             {std::tuple<std::uint32_t, DWORD, DWORD>{TALVIK_KEY_RSA_1024, 128, 128},
              {TALVIK_KEY_RSA_4096, 512, 512},
              {TALVIK_KEY_EC_P256, 32, 64},
              {TALVIK_KEY_EC_P521, 65, 132}}) {
            openOnlyKey(keyType, 64);
            scripted::always("talvik_signHash", {.output = filled(made, 0x5A)});
            show(name + number(keyType), [&, told = told, made = made] { return call(told, made); });
        }
    };
    each("size of type ",
         [&](DWORD, DWORD) { return ksp.SignHash(hProv, key, nullptr, nullptr, 0, nullptr, 0, &size, 0); });
    each("room below that of type ", [&](DWORD told, DWORD) { return sign(0, told - 1); });
    each("room below the signature's of type ", [&](DWORD, DWORD made) { return sign(0, made - 1); });
    each("room for the signature of type ", [&](DWORD, DWORD made) { return sign(0, made); });
}

TEST_F(KspSign, RefusesWhatIsMissing) {
    openOnlyKey();
    showNulls("KSPSignHash", ksp.SignHash, hProv, key, nullptr, hash, 32, data.data(), 256, &size, 0);
    SHOW(ksp.SignHash(hProv, key, nullptr, hash, 0x80000000, data.data(), 256, &size, 0));
    showNulls("KSPVerifySignature", ksp.VerifySignature, hProv, key, nullptr, hash, 32, signature, 1, 0);
    SHOW(ksp.VerifySignature(hProv, key, nullptr, hash, 0x80000000, signature, 1, 0));
    SHOW(ksp.VerifySignature(hProv, key, nullptr, hash, 32, signature, 0xFFFFFFFF, 0));
    keyOf(key)->publicKeyLength = 0;
    SHOW(verify());
}

// Between the silent test and the password check the user may have signed off.
TEST_F(KspSign, ASilentCallShowsNothingWhenTheSignOnEndsInBetween) {
    openOnlyKey();
    clearDevicePassword(DEVICE);
    attachTokens({}, true);
    scripted::before("talvik_getTokenInfo", [] {
        if (scripted::callCount("talvik_getTokenInfo") > 2)  // opening, test, check
            attachTokens({});
    });
    SHOW(sign(NCRYPT_SILENT_FLAG));
}

TEST_F(KspSign, PssNeedsFirmware2) {
    openOnlyKey();
    scripted::always("talvik_signHash", {.output = filled(256, 0x5A)});
    const auto firmware = [&](const char* version) {
        talvik::ksp::BoundToken token = *providerOf(hProv)->token();
        token.firmwareVersion = version;
        providerOf(hProv)->open(token);
    };
    for (const char* version : {"2.0.0", "2.0", "2", "2.0.0.1", "10.0.0", "2.1", "2.", "2..0", " 2.0.0", "+2",
                                "99999999999999999999", "2.0.0beta"}) {
        firmware(version);
        EXPECT_EQ(sign(BCRYPT_PAD_PSS), ERROR_SUCCESS) << version;
        EXPECT_EQ(verify(BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), ERROR_SUCCESS) << version;
    }
    for (const char* version :
         {"1.9.9", "1.10", "0.9", "v2.0.0", "-3.0", ".2.0", "2.-1", "2.0.-1", "1.99999999999999999999", ""}) {
        firmware(version);
        show(std::string("signing on ") + version, [&] { return sign(BCRYPT_PAD_PSS); });
        EXPECT_EQ(verify(BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1), NTE_NOT_SUPPORTED) << version;
    }
    SHOW(verify(BCRYPT_PAD_PSS));
}

TEST_F(KspSign, VerifiesWithTheKeysOwnCodeAndPublicKey) {
    // A modulus is wrapped, whatever begins with 0x30 is taken as DER.
    for (const unsigned char first : {0xC1, 0x30}) {
        TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, TALVIK_KEY_EC_P384, 128);
        record.modulus[0] = first;
        attachTokens({record});
        open();
        openKey(record);
        showEach<DWORD>("flags", {0, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1}, [&](DWORD flags) { return verify(flags); });
        scripted::next("talvik_verifySignatureHash", {3});
        show("refused", [&] { return verify(); });
    }
}

}  // namespace
