#include "ksp/entry_points.h"
#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

class KspProvider : public KspTest {};

TEST_F(KspProvider, TheTableHoldsTheFunctionsInTheSystemsOrder) {
    EXPECT_EQ(ksp.Version.MajorVersion, 1);
    EXPECT_EQ(ksp.Version.MinorVersion, 0);
    void* slots[26];
    std::memcpy(slots, &ksp.OpenProvider, sizeof slots);
    const auto at = [](auto* function) { return reinterpret_cast<void*>(function); };
    EXPECT_THAT(
        slots,
        ElementsAre(at(KSPOpenProvider), at(KSPOpenKey), at(KSPCreatePersistedKey), at(KSPGetProviderProperty),
                    at(KSPGetKeyProperty), at(KSPSetProviderProperty), at(KSPSetKeyProperty), at(KSPFinalizeKey),
                    at(KSPDeleteKey), at(KSPFreeProvider), at(KSPFreeKey), at(KSPFreeBuffer), at(KSPEncrypt),
                    at(KSPDecrypt), at(KSPIsAlgSupported), at(KSPEnumAlgorithms), at(KSPEnumKeys), at(KSPImportKey),
                    at(KSPExportKey), at(KSPSignHash), at(KSPVerifySignature), at(KSPPromptUser),
                    at(KSPNotifyChangeKey), at(KSPSecretAgreement), at(KSPDeriveKey), at(KSPFreeSecret)));
    SHOW(GetKeyStorageInterface(nullptr, nullptr, 0));
}

// The others' refusals stand with those of their other arguments.
TEST_F(KspProvider, AProviderThatIsNullOrNotOpenIsRefused) {
    for (const NCRYPT_PROV_HANDLE provider : {NCRYPT_PROV_HANDLE{0}, NCRYPT_PROV_HANDLE{invalid}}) {
        SHOW(ksp.EnumAlgorithms(provider, 0, nullptr, nullptr, 0));
        SHOW(ksp.EnumKeys(provider, nullptr, nullptr, nullptr, 0));
        SHOW(ksp.PromptUser(provider, 0, nullptr, 0));
    }
    SHOW(ksp.FreeProvider(0));
    SHOW(ksp.FreeProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(new talvik::ksp::KspProvider)));
}

TEST_F(KspProvider, OpensOnTheFirstToken) {
    scripted::always("talvik_init", {9});  // no matter
    scripted::next("talvik_initDevice", {5});
    SHOW(ksp.OpenProvider(&hProv, nullptr, 0));
    show("the token that failed is tried again", [&] { return ksp.OpenProvider(&hProv, nullptr, 0); });
    SHOW(ksp.OpenProvider(nullptr, nullptr, 0));
    scripted::attach({});
    show("without a token", [&] { return ksp.OpenProvider(&hProv, nullptr, 0); });
    const auto token = providerOf(hProv)->token();
    EXPECT_EQ(token->deviceId + token->firmwareVersion, "");
    SHOW(ksp.OpenKey(hProv, &key, L"x", 0, 0));
}

TEST_F(KspProvider, AnExceptionOfTheLibraryStaysInside) {
    const std::pair<std::function<void()>, SECURITY_STATUS> rows[] = {{[] { throw std::bad_alloc(); }, NTE_NO_MEMORY},
                                                                      {[] { throw 1; }, NTE_INTERNAL_ERROR}};
    for (const auto& [hook, status] : rows) {
        scripted::before("talvik_getTokenInfo", hook);
        NCRYPT_PROV_HANDLE provider = UNTOUCHED_HANDLE;
        EXPECT_EQ(ksp.OpenProvider(&provider, nullptr, 0), status);
        EXPECT_EQ(provider, UNTOUCHED_HANDLE);
        EXPECT_THAT(ofLevel(log.take(), "ERROR"), ElementsAre(StartsWith("KSPOpenProvider: ")));
    }
}

TEST_F(KspProvider, ReadsItsProperties) {
    open();
    const std::pair<const wchar_t*, Bytes> rows[] = {{L"Name", utf16(L"Talvik Cryptographic Provider CSP")},
                                                     {L"Impl Type", words({9})},
                                                     {L"Version", words({0x100})},
                                                     {L"Algorithm Name", utf16(L"RSA")},
                                                     {L"Max Name Length", words({256})},
                                                     {L"Security Descr Support", words({0})}};
    for (const auto& [name, value] : rows)
        EXPECT_EQ(readBySizeRule([&](BYTE* buffer, DWORD room, DWORD* size) {
                      return ksp.GetProviderProperty(hProv, name, buffer, room, size, 0);
                  }),
                  value);
    EXPECT_THAT(ofLevel(log.take(), "ERROR"), IsEmpty());

    showNulls("KSPGetProviderProperty", ksp.GetProviderProperty, hProv, L"Use Count", nullptr, 0, &size, 0);
    const std::wstring endless(100'000, L'N');
    for (const wchar_t* name : {L"Use Count", L"name", L"", L"Nam\u0165\U0001F600", endless.c_str()})
        show("another property", [&] { return ksp.GetProviderProperty(hProv, name, nullptr, 0, &size, 0); });
}

TEST_F(KspProvider, TakesTheWindowThatOwnsTheDialog) {
    open();
    const auto owner = [&] { return providerOf(hProv)->token()->window; };
    HWND window = reinterpret_cast<HWND>(0x1122334455667788);
    const auto set = [&](BYTE* value, DWORD size) {
        EXPECT_EQ(ksp.SetProviderProperty(hProv, L"HWND Handle", value, size, 0), ERROR_SUCCESS);
    };
    for (const auto& [value, size] :
         {std::pair<BYTE*, DWORD>{nullptr, 8}, {bytesOf(window), 4}, {bytesOf(window), 0}}) {
        set(bytesOf(window), 8);
        EXPECT_EQ(owner(), window);
        set(value, size);
        EXPECT_EQ(owner(), nullptr);
    }
    showNulls("KSPSetProviderProperty", ksp.SetProviderProperty, hProv, L"SmartCardPin", nullptr, 8, 0);
    for (const wchar_t* name : {L"SmartCardPin", L"Name"})
        show(narrowed(name), [&] { return ksp.SetProviderProperty(hProv, name, nullptr, 8, 0); });
}

// Of a UTF-16 text the token gets what comes before the first zero byte.
TEST_F(KspProvider, HasAPinVerifiedAndRemembersIt) {
    openOnlyKey();
    state = [] {
        return (isPasswordValidated(DEVICE) ? "validated " : "none") + std::string(getDevicePassword(DEVICE).c_str());
    };
    for (const int status : {7, 0}) {
        const scripted::Outcome answer{.status = status, .length = 2};
        clearDevicePassword(DEVICE);
        scripted::next("talvik_validatePassword", answer);
        SHOW(ksp.SetProviderProperty(hProv, L"SmartCardPin", (BYTE*)L"987654", 0, 0));
        clearDevicePassword(DEVICE);
        scripted::next("talvik_validatePassword", answer);
        SHOW(ksp.SetKeyProperty(hProv, key, L"SmartCardPin", (BYTE*)"987654", 0, 0));
    }
}

TEST_F(KspProvider, PromptsUnlessThePinIsKnown) {
    attachTokens({});
    open();
    robot.cancels().enters(PIN);
    for (int i = 0; i < 3; ++i)
        SHOW(ksp.PromptUser(hProv, 0, nullptr, 0));
}

// Another thread opens a key of the second token while a call on the first is with the device library.
TEST_F(KspProvider, ACallKeepsToTheTokenThatItBeganWith) {
    const TalvikKeyPair first = scripted::keyPair(0x11), second = scripted::keyPair(0x22);
    scripted::attach({{"T1", {scripted::tokenInfo("one"), {first}, {}, {}}},
                      {"T2", {scripted::tokenInfo("two"), {second}, {}, {}}}});
    open();
    EXPECT_EQ(ksp.CreatePersistedKey(hProv, &key, L"RSA", nullptr, 0, 0), ERROR_SUCCESS);
    const NCRYPT_KEY_HANDLE pending = key, opened = openKey(first);
    BYTE out[256] = {};
    const struct {
        const char* name;
        int status;  // of the operation at which the provider is bound to the other token
        bool hasPin, asksForPin;
        std::function<SECURITY_STATUS()> act;
    } rows[] = {{"talvik_signHash", 49, true, true,
                 [&] { return ksp.SignHash(hProv, opened, nullptr, out, 32, out, 256, &size, 0); }},
                {"talvik_decrypt", 49, true, true,
                 [&] { return ksp.Decrypt(hProv, opened, out, 256, nullptr, out, 256, &size, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.PromptUser(hProv, 0, nullptr, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.FinalizeKey(hProv, pending, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.DeleteKey(hProv, opened, 0); }},
                {"talvik_validatePassword", 0, false, false,
                 [&] { return ksp.SetProviderProperty(hProv, L"SmartCardPin", (BYTE*)PIN, 4, 0); }}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        openKey(first);
        row.hasPin ? setDevicePassword(DEVICE, PIN) : clearDevicePassword(DEVICE);
        if (row.asksForPin)
            robot.enters(PIN);
        scripted::next(row.name, {row.status});
        scripted::before(row.name, [&, isBound = false]() mutable {
            if (!std::exchange(isBound, true))
                openKey(second);
        });
        EXPECT_EQ(row.act(), ERROR_SUCCESS);
        EXPECT_EQ(providerOf(hProv)->token()->deviceId, "T2");
        EXPECT_THAT(scripted::takeCalls(), Each(HasSubstr("(\"T1\"")));
        EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), PIN);
        EXPECT_FALSE(isPasswordValidated("T2"));
        scripted::before(row.name, nullptr);
    }
    EXPECT_EQ(robot.finish().size(), 5u);
}

TEST_F(KspProvider, ListsAlgorithms) {
    open();
    DWORD count = UNTOUCHED;
    NCryptAlgorithmName* list = nullptr;
    state = [&] {
        std::string found;
        for (DWORD i = 0; list != nullptr && i < count; ++i)
            found += narrowed(list[i].pszName) + ' ' + number(list[i].dwClass) + ' ' + number(list[i].dwAlgOperations) +
                     ' ' + number(list[i].dwFlags) + "; ";
        return found;
    };
    for (const DWORD operations : std::initializer_list<DWORD>{
             0, NCRYPT_HASH_OPERATION, NCRYPT_SIGNATURE_OPERATION, NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION,
             NCRYPT_HASH_OPERATION | NCRYPT_SIGNATURE_OPERATION, NCRYPT_CIPHER_OPERATION | NCRYPT_RNG_OPERATION}) {
        show("operations " + number(operations),
             [&] { return ksp.EnumAlgorithms(hProv, operations, &count, &list, 0); });
        EXPECT_EQ(ksp.FreeBuffer(std::exchange(list, nullptr)), ERROR_SUCCESS);
    }
    SHOW(ksp.EnumAlgorithms(hProv, 0, nullptr, &list, 0));
    SHOW(ksp.EnumAlgorithms(hProv, 0, &count, nullptr, 0));
    SHOW(ksp.FreeBuffer(nullptr));
    state = nullptr;
}

TEST_F(KspProvider, KnowsWhatItSupportsWithoutAHandle) {
    for (const wchar_t* name : {L"RSA", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521", L"SHA1", L"SHA256", L"SHA384",
                                L"SHA512", L"sha256", L"AES", L"", L"RSA "})
        show("KSPIsAlgSupported " + narrowed(name), [&] { return ksp.IsAlgSupported(0, name, 0); });
    SHOW(ksp.IsAlgSupported(0, nullptr, 0));
    SHOW(ksp.NotifyChangeKey(0, nullptr, 0));
    SHOW(ksp.SecretAgreement(0, 0, 0, nullptr, 0));
    SHOW(ksp.DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0));
    SHOW(ksp.FreeSecret(0, 1));
}

}  // namespace
