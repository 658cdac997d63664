#include "ksp/entry_points.h"
#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

class KspProvider : public KspTest {};

// An object as KSPOpenProvider leaves none behind: never opened.
NCRYPT_PROV_HANDLE neverOpened() {
    return reinterpret_cast<NCRYPT_PROV_HANDLE>(new talvik::ksp::KspProvider);
}

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
    refusalsOf("GetKeyStorageInterface", GetKeyStorageInterface)(
        NTE_INVALID_PARAMETER, "GetKeyStorageInterface: ppFunctionTable is null", nullptr, nullptr, 0);
}

TEST_F(KspProvider, EveryFunctionRefusesAProviderThatIsNullOrNotOpen) {
    const NCRYPT_PROV_HANDLE closed = neverOpened();
    // With arguments of no meaning: the provider comes first.
    const auto refuses = [&]<class... Parameters>(const std::string& name, SECURITY_STATUS(WINAPI * function)(
                                                                               NCRYPT_PROV_HANDLE, Parameters...)) {
        for (const NCRYPT_PROV_HANDLE provider : {NCRYPT_PROV_HANDLE{0}, closed})
            refusalsOf(name, function)(NTE_INVALID_HANDLE, name + ": provider handle is null or not initialized",
                                       provider, Parameters{}...);
    };
    refuses("KSPOpenKey", ksp.OpenKey);
    refuses("KSPCreatePersistedKey", ksp.CreatePersistedKey);
    refuses("KSPGetProviderProperty", ksp.GetProviderProperty);
    refuses("KSPGetKeyProperty", ksp.GetKeyProperty);
    refuses("KSPSetProviderProperty", ksp.SetProviderProperty);
    refuses("KSPSetKeyProperty", ksp.SetKeyProperty);
    refuses("KSPFinalizeKey", ksp.FinalizeKey);
    refuses("KSPDeleteKey", ksp.DeleteKey);
    refuses("KSPEncrypt", ksp.Encrypt);
    refuses("KSPDecrypt", ksp.Decrypt);
    refuses("KSPEnumAlgorithms", ksp.EnumAlgorithms);
    refuses("KSPEnumKeys", ksp.EnumKeys);
    refuses("KSPImportKey", ksp.ImportKey);
    refuses("KSPExportKey", ksp.ExportKey);
    refuses("KSPSignHash", ksp.SignHash);
    refuses("KSPVerifySignature", ksp.VerifySignature);
    refuses("KSPPromptUser", ksp.PromptUser);
    EXPECT_EQ(ksp.FreeProvider(closed), ERROR_SUCCESS);
    refusalsOf("KSPFreeProvider", ksp.FreeProvider)(NTE_INVALID_HANDLE, "KSPFreeProvider: provider handle is null", 0);
}

TEST_F(KspProvider, OpensOnTheFirstToken) {
    NCRYPT_PROV_HANDLE first = 0, second = 0;
    scripted::always("talvik_init", {9});  // no matter
    scripted::next("talvik_initDevice", {5});
    expect(ERROR_SUCCESS, "KSPOpenProvider", [&] { return ksp.OpenProvider(&first, nullptr, 0); },
           {MONITOR, "DEBUG KSP: Provider firmware=7.1", "ERROR KSP: Init device failed for T1 : 5",
            "DEBUG KSP: Provider opened successfully"},
           {INIT, DEVICES, TOKEN_INFO, INIT, "talvik_initDevice(\"T1\", false, null)", INIT,
            "talvik_initDevice(\"T2\", false, null)"});
    // The one that failed is tried again, the other is not.
    expect(ERROR_SUCCESS, "KSPOpenProvider", [&] { return ksp.OpenProvider(&second, nullptr, 0); },
           {MONITOR, "DEBUG KSP: Provider firmware=7.1", "DEBUG KSP: Provider opened successfully"},
           {INIT, DEVICES, TOKEN_INFO, INIT, "talvik_initDevice(\"T1\", false, null)"});
    for (const NCRYPT_PROV_HANDLE provider : {first, second})
        expect(ERROR_SUCCESS, "KSPFreeProvider", [&] { return ksp.FreeProvider(provider); });
    refusalsOf("KSPOpenProvider", ksp.OpenProvider)(NTE_INVALID_PARAMETER, "KSPOpenProvider: phProvider is null",
                                                    nullptr, nullptr, 0);
}

TEST_F(KspProvider, OpensWithoutAToken) {
    scripted::attach({});
    expect(ERROR_SUCCESS, "KSPOpenProvider", [&] { return ksp.OpenProvider(&hProv, nullptr, 0); },
           {MONITOR, "DEBUG KSP: No token connected, opening provider without device"}, {INIT, DEVICES});
    const auto token = providerOf(hProv)->token();
    EXPECT_EQ(token->deviceId + token->firmwareVersion, "");
    NCRYPT_KEY_HANDLE key = 0;
    expect(NTE_NO_KEY, "KSPOpenKey", [&] { return ksp.OpenKey(hProv, &key, L"x", 0, 0); },
           {"DEBUG KSP: Opening key: x", "ERROR KSP: No keys found on token"},
           {DEVICES, "talvik_getKeyPairList(\"\", null)"});
    EXPECT_EQ(ksp.FreeProvider(hProv), ERROR_SUCCESS);
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

    size = UNTOUCHED;
    const auto refused = refusalsOf("KSPGetProviderProperty", ksp.GetProviderProperty);
    const std::string missing = "KSPGetProviderProperty: pszProperty or pcbResult is null";
    refused(NTE_INVALID_PARAMETER, missing, hProv, nullptr, nullptr, 0, &size, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, L"Name", nullptr, 0, nullptr, 0);
    refused(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported", hProv, L"Use Count",
            nullptr, 0, &size, 0);
    const std::wstring endless(100'000, L'N');
    for (const wchar_t* name : {L"name", L"", L"Nam\u0165\U0001F600", endless.c_str()})
        refused(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: unsupported property", hProv, name, nullptr, 0, &size, 0);
    EXPECT_EQ(size, UNTOUCHED);
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
    const auto refused = refusalsOf("KSPSetProviderProperty", ksp.SetProviderProperty);
    const std::string of = "KSPSetProviderProperty: ";
    BYTE* const value = bytesOf(window);
    refused(NTE_INVALID_PARAMETER, of + "pszProperty is null", hProv, nullptr, value, 8, 0);
    refused(NTE_NOT_SUPPORTED, of + "unsupported property", hProv, L"Name", value, 8, 0);
    refused(NTE_INVALID_PARAMETER, of + "NCRYPT_PIN_PROPERTY pbInput is null", hProv, L"SmartCardPin", nullptr, 8, 0);
}

// Of a UTF-16 text the token gets what comes before the first zero byte.
TEST_F(KspProvider, HasAPinVerifiedAndRemembersIt) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const std::pair<std::string, Act> setters[] = {
        {"KSPSetProviderProperty",
         [&] { return ksp.SetProviderProperty(hProv, L"SmartCardPin", (BYTE*)L"987654", 0, 0); }},
        {"KSPSetKeyProperty", [&] { return ksp.SetKeyProperty(hProv, key, L"SmartCardPin", (BYTE*)"987654", 0, 0); }}};
    for (const auto& [entryPoint, act] : setters) {
        const bool isWide = entryPoint == "KSPSetProviderProperty";
        const std::string pin = isWide ? "9" : "987654";
        const Lines asked = {"talvik_validatePassword(\"T1\", \"" + pin + "\", 1, 0, null)"};
        clearDevicePassword(DEVICE);
        scripted::next("talvik_validatePassword", {.status = 7, .length = 2});
        expect(NTE_VALIDATION_FAILED, entryPoint, act,
               {"DEBUG KSP: Setting PIN via property", "ERROR KSP: PIN validation failed: 7"}, asked);
        EXPECT_FALSE(isPasswordValidated(DEVICE));
        expect(ERROR_SUCCESS, entryPoint, act, {"DEBUG KSP: Setting PIN via property"}, asked);
        EXPECT_TRUE(isPasswordValidated(DEVICE));
        EXPECT_EQ(getDevicePassword(DEVICE).c_str(), pin);
    }
}

TEST_F(KspProvider, PromptsUnlessThePinIsKnown) {
    attachTokens({});
    open();
    const Act prompt = [&] { return ksp.PromptUser(hProv, 0, nullptr, 0); };
    robot.cancels().enters(PIN);
    expect(NTE_FAIL, "KSPPromptUser", prompt,
           PIN_ASKED +
               Lines{"DEBUG KSP: User cancelled password dialog", "ERROR KSPPromptUser: password validation failed"},
           {TOKEN_INFO});
    expect(ERROR_SUCCESS, "KSPPromptUser", prompt, PIN_ASKED, {TOKEN_INFO, validation("1234")});
    expect(ERROR_SUCCESS, "KSPPromptUser", prompt, PIN_KNOWN);
    EXPECT_EQ(robot.finish(), Lines({"PIN", "PIN"}));
}

// Another thread opens a key of the second token while a call on the first is with the device library.
TEST_F(KspProvider, ACallKeepsToTheTokenThatItBeganWith) {
    const TalvikKeyPair first = scripted::keyPair(0x11), second = scripted::keyPair(0x22);
    scripted::attach({{"T1", {scripted::tokenInfo("one"), {first}, {}, {}}},
                      {"T2", {scripted::tokenInfo("two"), {second}, {}, {}}}});
    open();
    const NCRYPT_KEY_HANDLE key = openKey(hProv, first);
    NCRYPT_KEY_HANDLE pending = 0;
    EXPECT_EQ(ksp.CreatePersistedKey(hProv, &pending, L"RSA", nullptr, 0, 0), ERROR_SUCCESS);
    keep(pending);
    BYTE out[256] = {};
    const struct {
        const char* name;
        int status;  // of the operation at which the provider is bound to the other token
        bool hasPin, asksForPin;
        Act act;
    } rows[] = {{"talvik_signHash", 49, true, true,
                 [&] { return ksp.SignHash(hProv, key, nullptr, out, 32, out, 256, &size, 0); }},
                {"talvik_decrypt", 49, true, true,
                 [&] { return ksp.Decrypt(hProv, key, out, 256, nullptr, out, 256, &size, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.PromptUser(hProv, 0, nullptr, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.FinalizeKey(hProv, pending, 0); }},
                {"talvik_getTokenInfo", 0, false, true, [&] { return ksp.DeleteKey(hProv, key, 0); }},
                {"talvik_validatePassword", 0, false, false,
                 [&] { return ksp.SetProviderProperty(hProv, L"SmartCardPin", (BYTE*)PIN, 4, 0); }}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        openKey(hProv, first);
        row.hasPin ? setDevicePassword(DEVICE, PIN) : clearDevicePassword(DEVICE);
        if (row.asksForPin)
            robot.enters(PIN);
        scripted::next(row.name, {row.status});
        scripted::before(row.name, [&, isBound = false]() mutable {
            if (!std::exchange(isBound, true))
                openKey(hProv, second);
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
    const Lines hashes = {"SHA1 2 2", "SHA256 2 2", "SHA384 2 2", "SHA512 2 2"};
    const Lines curves = {"ECDSA_P256 5 16", "ECDSA_P384 5 16", "ECDSA_P521 5 16"};
    const std::pair<DWORD, Lines> rows[] = {
        {0, Lines{"RSA 3 20"} + curves + hashes},
        {NCRYPT_HASH_OPERATION, hashes},
        {NCRYPT_SIGNATURE_OPERATION, Lines{"RSA 3 20"} + curves},
        {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, {"RSA 3 20"}},
        {NCRYPT_HASH_OPERATION | NCRYPT_SIGNATURE_OPERATION, Lines{"RSA 3 20"} + curves + hashes},
        {NCRYPT_CIPHER_OPERATION | NCRYPT_RNG_OPERATION, {}}};
    for (const auto& [operations, expected] : rows) {
        DWORD count = UNTOUCHED;
        NCryptAlgorithmName* list = nullptr;
        expect(ERROR_SUCCESS, "KSPEnumAlgorithms",
               [&] { return ksp.EnumAlgorithms(hProv, operations, &count, &list, 0); },
               {"DEBUG KSP: Enumerated " + number(expected.size()) + " algorithms"});
        Lines found;
        for (DWORD i = 0; i < count; ++i) {
            const std::wstring name = list[i].pszName;
            found.push_back(std::string(name.begin(), name.end()) + " " + number(list[i].dwClass) + " " +
                            number(list[i].dwAlgOperations));
            EXPECT_EQ(list[i].dwFlags, 0u);
        }
        EXPECT_EQ(found, expected);
        EXPECT_EQ(ksp.FreeBuffer(list), ERROR_SUCCESS);
    }
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    const auto refused = refusalsOf("KSPEnumAlgorithms", ksp.EnumAlgorithms);
    const std::string missing = "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null";
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, nullptr, &list, 0);
    refused(NTE_INVALID_PARAMETER, missing, hProv, 0, &count, nullptr, 0);
    expect(ERROR_SUCCESS, "KSPFreeBuffer", [&] { return ksp.FreeBuffer(nullptr); });
}

TEST_F(KspProvider, KnowsWhatItSupportsWithoutAHandle) {
    for (const wchar_t* name :
         {L"RSA", L"ECDSA_P256", L"ECDSA_P384", L"ECDSA_P521", L"SHA1", L"SHA256", L"SHA384", L"SHA512"})
        expect(ERROR_SUCCESS, "KSPIsAlgSupported", [&] { return ksp.IsAlgSupported(0, name, 0); });
    const auto refused = refusalsOf("KSPIsAlgSupported", ksp.IsAlgSupported);
    for (const wchar_t* name : {L"sha256", L"AES", L"", L"RSA "})
        refused(NTE_NOT_SUPPORTED, "KSPIsAlgSupported: algorithm not supported", 0, name, 0);
    refused(NTE_INVALID_PARAMETER, "KSPIsAlgSupported: pszAlgId is null", 0, nullptr, 0);
    const auto notOffered = [&]<class... Parameters>(const std::string& name,
                                                     SECURITY_STATUS(WINAPI * function)(Parameters...)) {
        refusalsOf(name, function)(NTE_NOT_SUPPORTED, name + ": not supported", Parameters{}...);
    };
    notOffered("KSPNotifyChangeKey", ksp.NotifyChangeKey);
    notOffered("KSPSecretAgreement", ksp.SecretAgreement);
    notOffered("KSPDeriveKey", ksp.DeriveKey);
    expect(ERROR_SUCCESS, "KSPFreeSecret", [&] { return ksp.FreeSecret(0, 1); });
}

}  // namespace
