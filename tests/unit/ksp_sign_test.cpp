#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

std::string signCall(const std::string& pin = PIN, bool pss = false) {
    return "talvik_signHash(\"T1\", " + KEY_ID + ", \"" + pin + "\", " + hex(HASH) + ", 32, out, 1024, false, null, " +
           (pss ? "true)" : "false)");
}

class KspSign : public KspTest {
  protected:
    Act signing(NCRYPT_KEY_HANDLE key, DWORD flags = BCRYPT_PAD_PKCS1, DWORD room = 512) {
        return [=, this] {
            offer(UNTOUCHED);
            return ksp.SignHash(hProv, key, nullptr, hash, 32, data.data(), room, &size, flags);
        };
    }
    static Lines signLines(const std::string& padding) {
        return {"DEBUG KSP: SignHash - padding=" + padding,
                "DEBUG KSP: SignHash - credential: ABABABABABABABABABABABABABABABAB",
                "DEBUG KSP: SignHash - hash length: 32"};
    }

    BYTE* const hash = const_cast<BYTE*>(HASH.data());
};

TEST_F(KspSign, SignsWithThePaddingOfTheFlags) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const std::pair<DWORD, bool> rows[] = {
        {0, false}, {BCRYPT_PAD_PKCS1, false}, {BCRYPT_PAD_PSS, true}, {BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1, false}};
    for (const auto& [flags, pss] : rows) {
        scripted::next("talvik_signHash", {.output = filled(256, 0x5A)});
        expect(ERROR_SUCCESS, "KSPSignHash", signing(key, flags, 256),
               PIN_KNOWN + signLines(pss ? "PSS" : "PKCS1") + "DEBUG KSP: SignHash success, signature length=256",
               {signCall(PIN, pss)});
        EXPECT_EQ(delivered(), filled(256, 0x5A));
    }
}

// The size is that of the key's length, also where the signature is longer: that shows only when it is there.
TEST_F(KspSign, AnswersTheSizeFirstAndTheTrueLengthAfterwards) {
    const std::tuple<std::uint32_t, DWORD, DWORD> rows[] = {{TALVIK_KEY_RSA_1024, 128, 128},
                                                            {TALVIK_KEY_RSA_4096, 512, 512},
                                                            {TALVIK_KEY_EC_P256, 32, 64},
                                                            {TALVIK_KEY_EC_P521, 65, 132}};
    for (const auto& [keyType, told, made] : rows) {
        const NCRYPT_KEY_HANDLE key = openOnlyKey(keyType, 64);
        expect(ERROR_SUCCESS, "KSPSignHash",
               [&] { return ksp.SignHash(hProv, key, nullptr, nullptr, 0, nullptr, 0, &size, 0); },
               {"DEBUG KSP: SignHash size query, returning " + number(told)});
        EXPECT_EQ(size, told);
        const std::string tooSmall = "ERROR KSPSignHash: signature buffer too small, required=";
        expect(NTE_BUFFER_TOO_SMALL, "KSPSignHash", signing(key, 0, told - 1), {tooSmall + number(told)});
        EXPECT_TRUE(isOnlyTold(told));
        scripted::always("talvik_signHash", {.output = filled(made, 0x5A)});
        if (made > told) {
            expect(NTE_BUFFER_TOO_SMALL, "KSPSignHash", signing(key, 0, made - 1),
                   PIN_KNOWN + signLines("PKCS1") + (tooSmall + number(made)), {signCall()});
            EXPECT_TRUE(isOnlyTold(made));
        }
        EXPECT_EQ(signing(key, 0, made)(), ERROR_SUCCESS);
        EXPECT_EQ(delivered(), filled(made, 0x5A));
    }
}

TEST_F(KspSign, RefusesWhatIsMissing) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    BYTE some[256];
    const auto sign = refusalsOf("KSPSignHash", ksp.SignHash);
    const std::string noKey = "KSPSignHash: key handle or pcbResult is null";
    const std::string noHash = "KSPSignHash: pbHashValue is null or cbHashValue is zero";
    const std::string tooLarge = "KSPSignHash: cbHashValue is too large";
    sign(NTE_INVALID_PARAMETER, noKey, hProv, 0, nullptr, hash, 32, some, 256, &size, 0);
    sign(NTE_INVALID_PARAMETER, noKey, hProv, key, nullptr, hash, 32, some, 256, nullptr, 0);
    sign(NTE_INVALID_PARAMETER, noHash, hProv, key, nullptr, nullptr, 32, some, 256, &size, 0);
    sign(NTE_INVALID_PARAMETER, noHash, hProv, key, nullptr, hash, 0, some, 256, &size, 0);
    sign(NTE_INVALID_PARAMETER, tooLarge, hProv, key, nullptr, hash, 0x80000000, some, 256, &size, 0);
    const auto verify = refusalsOf("KSPVerifySignature", ksp.VerifySignature);
    const std::string missing = "KSPVerifySignature: invalid input parameters";
    verify(NTE_INVALID_HANDLE, "KSPVerifySignature: key handle is null", hProv, 0, nullptr, hash, 32, some, 1, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, nullptr, 32, some, 1, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, hash, 0, some, 1, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, hash, 0x80000000, some, 1, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, hash, 32, nullptr, 1, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, hash, 32, some, 0, 0);
    verify(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, hash, 32, some, 0xFFFFFFFF, 0);
    keyOf(key)->publicKeyLength = 0;
    verify(NTE_BAD_KEY, "KSP: No public key for verification", hProv, key, nullptr, hash, 32, some, 1, 0);
}

TEST_F(KspSign, ALibraryThatFailsOrLiesAboutTheLengthIsAnInternalError) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    for (const scripted::Outcome& outcome : {scripted::Outcome{12}, {.length = -1}, {.length = 1025}}) {
        scripted::next("talvik_signHash", outcome);
        expect(NTE_INTERNAL_ERROR, "KSPSignHash", signing(key),
               PIN_KNOWN + signLines("PKCS1") + ("ERROR KSP: Sign hash failed: " + number(outcome.status)),
               {signCall()});
    }
}

TEST_F(KspSign, AsksOnceMoreWhenTheSignOnHasExpiredUnlessSilent) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    scripted::always("talvik_signHash", {.output = filled(256, 1)});
    expectPinHandling({"KSPSignHash",
                       "talvik_signHash",
                       "SignHash",
                       "Sign hash failed",
                       [=, this](DWORD flags) { return signing(key, flags); },
                       signLines("PKCS1"),
                       {"DEBUG KSP: SignHash success, signature length=256"},
                       [](const std::string& pin) { return signCall(pin); }});
}

// Between the silent test and the password check the user may have signed off.
TEST_F(KspSign, ASilentCallShowsNothingWhenTheSignOnEndsInBetween) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    clearDevicePassword(DEVICE);
    attachTokens({}, true);
    scripted::before("talvik_getTokenInfo", [] {
        if (scripted::callCount("talvik_getTokenInfo") > 2)
            attachTokens({});
    });
    EXPECT_EQ(signing(key, NCRYPT_SILENT_FLAG)(), NTE_SILENT_CONTEXT);
    EXPECT_EQ(scripted::callCount("talvik_getTokenInfo"), 3);  // opening, test, check
    EXPECT_THAT(robot.finish(), IsEmpty());
}

TEST_F(KspSign, PssNeedsFirmware2) {
    const std::pair<const char*, bool> rows[] = {{"2.0.0", true},     {"2.0", true},
                                                 {"2", true},         {"2.0.0.1", true},
                                                 {"10.0.0", true},    {"2.1", true},
                                                 {"2.", true},        {"2..0", true},
                                                 {" 2.0.0", true},    {"+2", true},
                                                 {"1.9.9", false},    {"1.10", false},
                                                 {"", false},         {"0.9", false},
                                                 {"v2.0.0", false},   {"-3.0", false},
                                                 {".2.0", false},     {"2.-1", false},
                                                 {"2.0.-1", false},   {"99999999999999999999", true},
                                                 {"2.0.0beta", true}, {"1.99999999999999999999", false}};
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    BYTE signature[1] = {};
    for (const auto& [firmware, allowed] : rows) {
        SCOPED_TRACE(firmware);
        talvik::ksp::BoundToken token = *providerOf(hProv)->token();
        token.firmwareVersion = firmware;
        providerOf(hProv)->open(token);
        forgetSoFar();
        EXPECT_EQ(signing(key, BCRYPT_PAD_PSS)(), allowed ? ERROR_SUCCESS : NTE_NOT_SUPPORTED);
        if (!allowed) {
            EXPECT_EQ(log.entries().back(),
                      std::string("ERROR KSPSignHash: PSS not supported on firmware ") + firmware);
            EXPECT_THAT(scripted::takeCalls(), IsEmpty());
        }
        EXPECT_EQ(ksp.VerifySignature(hProv, key, nullptr, hash, 32, signature, 1, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1),
                  allowed ? ERROR_SUCCESS : NTE_NOT_SUPPORTED);
    }
    EXPECT_THAT(log.entries(),
                Contains("ERROR KSPVerifySignature: PSS not supported on firmware 1.99999999999999999999"));
}

TEST_F(KspSign, VerifiesWithTheKeysOwnCodeAndPublicKey) {
    const Bytes signature = bytes(5);
    const auto verifying = [&](NCRYPT_KEY_HANDLE key, DWORD flags) {
        return [=, this] {
            return ksp.VerifySignature(hProv, key, nullptr, hash, 32, const_cast<BYTE*>(signature.data()), 5, flags);
        };
    };
    // A modulus is wrapped, whatever begins with 0x30 is taken as DER.
    for (const bool isDer : {false, true}) {
        TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, TALVIK_KEY_EC_P384, 128);
        record.modulus[0] = isDer ? 0x30 : 0xC1;
        attachTokens({record});
        open();
        const NCRYPT_KEY_HANDLE key = openKey(hProv, record);
        Bytes modulus = filled(128, 0xAB);
        modulus[0] = record.modulus[0];
        const Bytes der = isDer ? modulus : buildRsaPublicKeyDerFromBytes(modulus, Bytes{1, 0, 1});
        for (const auto& [flags, pss] : {std::pair<DWORD, bool>{0, false}, {BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1, true}}) {
            const Lines lines = {isDer ? "DEBUG KSP: Public key is already DER encoded"
                                       : "DEBUG KSP: Public key is raw modulus, converting to DER",
                                 "DEBUG KSP: VerifySignature - hash length: 32",
                                 "DEBUG KSP: VerifySignature - public key length: " + number(der.size()),
                                 "DEBUG KSP: VerifySignature - signature length: 5",
                                 std::string("DEBUG KSP: VerifySignature - padding=") + (pss ? "PSS" : "PKCS1")};
            const Lines calls = {"talvik_verifySignatureHash(6, \"T1\", " + hex(HASH) + ", 32, " + hex(der) + ", " +
                                 number(der.size()) + ", 0102030405, 5, null, " + (pss ? "true)" : "false)")};
            expect(ERROR_SUCCESS, "KSPVerifySignature", verifying(key, flags),
                   lines + "DEBUG KSP: Verify signature success", calls);
            scripted::next("talvik_verifySignatureHash", {3});
            expect(NTE_BAD_SIGNATURE, "KSPVerifySignature", verifying(key, flags),
                   lines + "ERROR KSP: Verify signature failed: 3", calls);
        }
    }
}

}  // namespace
