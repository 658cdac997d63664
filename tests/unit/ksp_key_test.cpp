#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

std::wstring nameOf(const TalvikKeyPair& record) {
    const std::string name = scripted::containerName(record);
    return {name.begin(), name.end()};
}

class KspKeys : public KspTest {
  protected:
    // Setting properties of one key.
    Act setting(NCRYPT_KEY_HANDLE key, const wchar_t* name, const void* value, DWORD length) {
        return [=, this] {
            return ksp.SetKeyProperty(hProv, key, name, static_cast<BYTE*>(const_cast<void*>(value)), length, 0);
        };
    }
    void expectSet(const Act& act, const Lines& lines = {}) { expect(ERROR_SUCCESS, "KSPSetKeyProperty", act, lines); }
    DWORD readWord(NCRYPT_KEY_HANDLE key, const wchar_t* name) { return valueOf<DWORD>(readKeyProperty(key, name)); }
};

TEST_F(KspKeys, OpensAKeyByItsHexName) {
    const TalvikKeyPair first = scripted::keyPair(0x11, TALVIK_USAGE_SIGN);
    const TalvikKeyPair second = scripted::keyPair(0xAB, TALVIK_USAGE_EXCHANGE, TALVIK_KEY_EC_P521, 132);
    attachTokens({first, second});
    open();
    NCRYPT_KEY_HANDLE handle = 0;
    expect(ERROR_SUCCESS, "KSPOpenKey", [&] { return ksp.OpenKey(hProv, &handle, nameOf(second).c_str(), 0, 0); },
           {"DEBUG KSP: Opening key: " + scripted::containerName(second), "DEBUG KSP: Resolved key to device: T1",
            "DEBUG KSP: Available key: " + scripted::containerName(first),
            "DEBUG KSP: Available key: " + scripted::containerName(second), "DEBUG KSP: Key match found, proceeding...",
            "DEBUG KSP: Key opened, algorithm=7 bits=521"},
           {DEVICES, KEY_LIST, KEY_LIST});
    const KspKey& key = *keyOf(keep(handle));
    EXPECT_THAT(key.keyId, Each(0xAB));
    EXPECT_EQ(std::tuple(key.keyIdLength, key.keyUsage, key.publicKeyLength, key.keyAliasLength),
              std::tuple(16u, TALVIK_USAGE_EXCHANGE, 132u, 1u));
    EXPECT_STREQ(key.label, "label 171");
    EXPECT_EQ(std::tuple(key.storageFlag, key.isFinalized), std::tuple(1, 1));
}

TEST_F(KspKeys, BindsTheProviderToTheTokenThatHoldsTheKey) {
    const TalvikKeyPair onSecond = scripted::keyPair(0x22);
    scripted::attach({{"T1", {scripted::tokenInfo("one"), {scripted::keyPair(0x11)}, {}, {}}},
                      {"T2", {scripted::tokenInfo("two"), {onSecond}, {}, {}}}});
    open();
    EXPECT_EQ(providerOf(hProv)->token()->deviceId, "T1");
    openKey(hProv, onSecond);
    EXPECT_EQ(providerOf(hProv)->token()->deviceId, "T2");
    // A label counts for the token, but opens no key. Without a name the provider stays where it is.
    NCRYPT_KEY_HANDLE key = 0;
    expect(NTE_NO_KEY, "KSPOpenKey", [&] { return ksp.OpenKey(hProv, &key, L"label 17", 0, 0); },
           {"DEBUG KSP: Opening key: label 17", "DEBUG KSP: Resolved key to device: T1",
            "DEBUG KSP: Available key: " + ONE, "ERROR KSP: Input key not found on token: label 17"},
           {DEVICES, KEY_LIST, KEY_LIST});
    expect(
        NTE_NO_KEY, "KSPOpenKey", [&] { return ksp.OpenKey(hProv, &key, nullptr, AT_SIGNATURE, 0); },
        {"DEBUG KSP: Opening key: ", "DEBUG KSP: Available key: " + ONE, "ERROR KSP: Input key not found on token: "},
        {KEY_LIST});
}

TEST_F(KspKeys, AnEarlierKeyWithTheNameAsItsLabelIsTaken) {
    TalvikKeyPair labelled = scripted::keyPair(0x11);
    const TalvikKeyPair named = scripted::keyPair(0xAB);
    const std::string name = scripted::containerName(named);
    *std::copy(name.begin(), name.end(), labelled.label) = '\0';
    attachTokens({labelled, named});
    open();
    EXPECT_THAT(keyOf(openKey(hProv, named))->keyId, Each(0x11));
}

TEST_F(KspKeys, NamesThatNoKeyHasAreRefusedWhateverTheirLength) {
    const TalvikKeyPair record = scripted::keyPair(0xAB);
    attachTokens({record});
    open();
    NCRYPT_KEY_HANDLE key = UNTOUCHED_HANDLE;
    std::wstring lower = nameOf(record);
    for (wchar_t& digit : lower)
        digit = static_cast<wchar_t>(towlower(digit));
    std::wstring high = nameOf(record);
    high[0] = L'\u0142';  // its low byte is 'B'
    for (const std::wstring& name : {lower, high, nameOf(record) + L"0", nameOf(record).substr(1),
                                     std::wstring(L"\u0160\u0165\U0001F621"), std::wstring(50'000, L'A')}) {
        expectError([&] { return ksp.OpenKey(hProv, &key, name.c_str(), 0, 0); }, NTE_NO_KEY,
                    "ERROR KSP: Input key not found on token: " + narrowed(name));
    }
    EXPECT_EQ(key, UNTOUCHED_HANDLE);
}

TEST_F(KspKeys, ARecordThatLiesAboutItsLengthsCountsAsFull) {
    TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, 99);
    record.modulusLength = record.keyAliasLength = 0xFFFFFFFF;
    std::fill(std::begin(record.label), std::end(record.label), 'L');
    attachTokens({record});
    open();
    const NCRYPT_KEY_HANDLE handle = openKey(hProv, record);
    EXPECT_EQ(std::tuple(keyOf(handle)->publicKeyLength, keyOf(handle)->keyAliasLength), std::tuple(1024u, 128u));
    EXPECT_EQ(std::string(keyOf(handle)->label), std::string(sizeof record.label, 'L'));
    EXPECT_EQ(readWord(handle, L"Length"), 0u);
    EXPECT_EQ(readKeyProperty(handle, L"Algorithm Name"), utf16(L"RSA"));
}

TEST_F(KspKeys, RefusesWhatIsMissing) {
    open();
    NCRYPT_KEY_HANDLE key = UNTOUCHED_HANDLE;
    NCryptKeyName* name = nullptr;
    void* state = nullptr;
    const auto create = refusalsOf("KSPCreatePersistedKey", ksp.CreatePersistedKey);
    const std::string createNull = "KSPCreatePersistedKey: phKey or pszAlgId is null";
    create(NTE_INVALID_PARAMETER, createNull, hProv, nullptr, L"RSA", nullptr, 0, 0);
    create(NTE_INVALID_PARAMETER, createNull, hProv, &key, nullptr, nullptr, 0, 0);
    for (const wchar_t* algorithm : {L"rsa", L"SHA256"})
        create(NTE_NOT_SUPPORTED, "KSP: Unsupported algorithm for key generation", hProv, &key, algorithm, nullptr, 0,
               0);
    EXPECT_EQ(key, UNTOUCHED_HANDLE);
    const auto enumerate = refusalsOf("KSPEnumKeys", ksp.EnumKeys);
    const std::string enumerateNull = "KSPEnumKeys: ppKeyName or ppEnumState is null";
    enumerate(NTE_INVALID_PARAMETER, enumerateNull, hProv, nullptr, nullptr, &state, 0);
    enumerate(NTE_INVALID_PARAMETER, enumerateNull, hProv, nullptr, &name, nullptr, 0);
    refusalsOf("KSPOpenKey", ksp.OpenKey)(NTE_INVALID_PARAMETER, "KSPOpenKey: phKey is null", hProv, nullptr, L"x", 0,
                                          0);
    const std::string noKey = ": key handle is null";
    for (const auto& [name, function] : {std::pair{"KSPFinalizeKey", ksp.FinalizeKey}, {"KSPDeleteKey", ksp.DeleteKey}})
        refusalsOf(name, function)(NTE_INVALID_HANDLE, name + noKey, hProv, 0, 0);
    refusalsOf("KSPGetKeyProperty", ksp.GetKeyProperty)(NTE_INVALID_HANDLE, "KSPGetKeyProperty" + noKey, hProv, 0,
                                                        L"Name", nullptr, 0, &size, 0);
    refusalsOf("KSPSetKeyProperty", ksp.SetKeyProperty)(NTE_INVALID_HANDLE, "KSPSetKeyProperty" + noKey, hProv, 0,
                                                        L"IV", nullptr, 0, 0);
    expect(ERROR_SUCCESS, "KSPFreeKey", [&] { return ksp.FreeKey(0, 0); });
}

TEST_F(KspKeys, MakesAKeyOnTheTokenOnceItIsFinalized) {
    open();
    setDevicePassword(DEVICE, PIN);
    const TalvikKeyPair made = scripted::keyPair(0xCD, 0, 0);
    scripted::generates(made);
    struct {
        const wchar_t* algorithm;
        DWORD keySpec, length;  // set as a property; 0: not set
        std::uint32_t requestedType, requestedUsage;
        DWORD lengthThen;
    } const rows[] = {{L"RSA", AT_SIGNATURE, 0, 2, 1, 2048},
                      {L"RSA", 0, 1024, 1, 1, 1024},
                      {L"RSA", AT_KEYEXCHANGE, 3072, 3, 2, 3072},
                      {L"RSA", AT_KEYEXCHANGE, 4096, 4, 2, 4096},
                      {L"RSA", 0, 2048, 2, 1, 2048},
                      {L"RSA", 0, 512, 2, 1, 512},
                      {L"ECDSA_P256", AT_KEYEXCHANGE, 0, 5, 1, 256},
                      {L"ECDSA_P384", 0, 0, 6, 1, 384},
                      {L"ECDSA_P521", 0, 0, 7, 1, 521}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.requestedType * 10000 + row.length);
        NCRYPT_KEY_HANDLE handle = 0;
        expect(ERROR_SUCCESS, "KSPCreatePersistedKey",
               [&] { return ksp.CreatePersistedKey(hProv, &handle, row.algorithm, L"my key", row.keySpec, 0); },
               {"DEBUG KSP: Key object created, waiting for FinalizeKey"});
        keep(handle);
        EXPECT_EQ(readKeyProperty(handle, L"Name"), utf16(std::wstring(32, L'0')));
        if (row.length != 0) {
            EXPECT_EQ(setting(handle, L"Length", &row.length, 4)(), ERROR_SUCCESS);
        }
        const Act finalize = [&] { return ksp.FinalizeKey(hProv, handle, 0); };
        const Lines calls = {"talvik_generateKeyPair(\"T1\", \"1234\", {keyId=" + std::string(32, '0') + " usage=" +
                             number(row.requestedUsage) + " keyType=" + number(row.requestedType) + "}, null)"};
        const Lines lines =
            PIN_KNOWN + ("DEBUG KSP: FinalizeKey - generating key, algorithm=" + number(row.requestedType) +
                         " bitSize=" + number(row.lengthThen));
        scripted::next("talvik_generateKeyPair", {4});
        expect(NTE_INTERNAL_ERROR, "KSPFinalizeKey", finalize, lines + "ERROR KSP: Key generation failed: 4", calls);
        expect(ERROR_SUCCESS, "KSPFinalizeKey", finalize, lines + "DEBUG KSP: Key finalized successfully", calls);
        expect(ERROR_SUCCESS, "KSPFinalizeKey", finalize);
        EXPECT_EQ(readWord(handle, L"Length"), row.lengthThen);
        EXPECT_EQ(readKeyProperty(handle, L"Unique Name"), utf16(nameOf(made)));
        EXPECT_EQ(readKeyProperty(handle, L"Algorithm Name"), utf16(row.algorithm));
        const KspKey& key = *keyOf(handle);
        EXPECT_STREQ(key.label, made.label);
        EXPECT_EQ(std::tuple(key.publicKeyLength, key.storageFlag), std::tuple(256u, 1));
    }
}

TEST_F(KspKeys, DeletesAKeyAndKeepsItsHandle) {
    const NCRYPT_KEY_HANDLE handle = openOnlyKey();
    const Lines calls = {"talvik_deleteKeyPair(\"T1\", " + KEY_ID + ", \"1234\", true, null)"};
    const Act remove = [&] { return ksp.DeleteKey(hProv, handle, 0); };
    scripted::next("talvik_deleteKeyPair", {8});
    expect(NTE_INTERNAL_ERROR, "KSPDeleteKey", remove, PIN_KNOWN + "ERROR KSP: Delete key failed: 8", calls);
    expect(ERROR_SUCCESS, "KSPDeleteKey", remove, PIN_KNOWN + "DEBUG KSP: Key deleted successfully", calls);
}

TEST_F(KspKeys, WithoutThePinNothingIsMadeStoredOrDeleted) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    clearDevicePassword(DEVICE);
    NCRYPT_KEY_HANDLE pending = 0;
    EXPECT_EQ(ksp.CreatePersistedKey(hProv, &pending, L"RSA", nullptr, 0, 0), ERROR_SUCCESS);
    keep(pending);
    const std::pair<std::string, Act> rows[] = {
        {"KSPFinalizeKey: password validation failed", [&] { return ksp.FinalizeKey(hProv, pending, 0); }},
        {"KSPDeleteKey: password validation failed", [&] { return ksp.DeleteKey(hProv, key, 0); }},
        {"KSPSetKeyProperty: password validation failed for certificate import",
         setting(key, L"SmartCardKeyCertificate", "der", 3)}};
    for (const auto& [text, act] : rows) {
        robot.cancels();
        expectError(act, NTE_FAIL, "ERROR " + text);
        EXPECT_EQ(scripted::takeCalls(), Lines({TOKEN_INFO}));
    }
    const auto silently = [&](const std::string& name, const Act& act) {
        expect(NTE_SILENT_CONTEXT, name, act, {"ERROR " + name + ": silent mode requested but PIN not validated"},
               {TOKEN_INFO});
    };
    silently("KSPFinalizeKey", [&] { return ksp.FinalizeKey(hProv, pending, NCRYPT_SILENT_FLAG); });
    silently("KSPDeleteKey", [&] { return ksp.DeleteKey(hProv, key, NCRYPT_SILENT_FLAG); });
    EXPECT_EQ(robot.finish().size(), 3u);
    setDevicePassword(DEVICE, PIN);
    EXPECT_EQ(ksp.DeleteKey(hProv, key, NCRYPT_SILENT_FLAG), ERROR_SUCCESS);
}

TEST_F(KspKeys, EnumeratesTheKeysOfTheFirstCall) {
    attachTokens({scripted::keyPair(0x11, TALVIK_USAGE_SIGN), scripted::keyPair(0x22, TALVIK_USAGE_EXCHANGE, 6),
                  scripted::keyPair(0x33, TALVIK_USAGE_BOTH, 5), scripted::keyPair(0x44, 7, 99)});
    open();
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    const Act next = [&] { return ksp.EnumKeys(hProv, nullptr, &name, &state, 0); };
    const std::tuple<std::wstring, std::wstring, DWORD> expected[] = {
        {std::wstring(32, L'1'), L"RSA", AT_SIGNATURE},
        {std::wstring(32, L'2'), L"ECDSA_P384", AT_KEYEXCHANGE},
        {std::wstring(32, L'3'), L"ECDSA_P256", AT_KEYEXCHANGE},
        {std::wstring(32, L'4'), L"RSA", 0}};
    for (const auto& [hexName, algorithm, keySpec] : expected) {
        const bool isFirst = state == nullptr;
        expect(ERROR_SUCCESS, "KSPEnumKeys", next, {"DEBUG KSP: Enumerated key: " + narrowed(hexName)},
               isFirst ? Lines{KEY_LIST} : Lines{});
        EXPECT_EQ(std::tuple(name->pszName, name->pszAlgid, name->dwLegacyKeySpec, name->dwFlags),
                  std::tuple(hexName, algorithm, keySpec, 0u));
        EXPECT_EQ(ksp.FreeBuffer(name), ERROR_SUCCESS);
        attachTokens({scripted::keyPair(0x55)});  // not seen by this enumeration
    }
    for (int i = 0; i < 2; ++i)
        expect(NTE_NO_MORE_ITEMS, "KSPEnumKeys", next, {"DEBUG KSP: No more keys to enumerate"});
    EXPECT_EQ(ksp.FreeBuffer(state), ERROR_SUCCESS);
    state = nullptr;
    attachTokens({});
    expect(NTE_NO_MORE_ITEMS, "KSPEnumKeys", next, {"DEBUG KSP: No more keys to enumerate"}, {KEY_LIST});
    EXPECT_EQ(ksp.FreeBuffer(state), ERROR_SUCCESS);
}

TEST_F(KspKeys, ReadsItsProperties) {
    struct {
        std::uint32_t keyType;
        const wchar_t *name, *group;
        DWORD bits, blockLength;
    } const rows[] = {{1, L"RSA", L"RSA", 1024, 128},
                      {4, L"RSA", L"RSA", 4096, 512},
                      {5, L"ECDSA_P256", L"ECDSA", 256, 32},
                      {7, L"ECDSA_P521", L"ECDSA", 521, 65}};
    for (const auto& row : rows) {
        const NCRYPT_KEY_HANDLE key = openOnlyKey(row.keyType);
        EXPECT_EQ(readKeyProperty(key, L"Algorithm Name"), utf16(row.name));
        EXPECT_EQ(readKeyProperty(key, L"Algorithm Group"), utf16(row.group));
        EXPECT_EQ(readWord(key, L"Length"), row.bits);
        EXPECT_EQ(readWord(key, L"Block Length"), row.blockLength);
        EXPECT_EQ(readWord(key, L"Export Policy"), 1u);
        EXPECT_EQ(readWord(key, L"Key Type"), 0u);
        EXPECT_EQ(valueOf<NCRYPT_PROV_HANDLE>(readKeyProperty(key, L"Provider Handle")), hProv);
        EXPECT_EQ(readKeyProperty(key, L"Name").size(), 66u);
        EXPECT_EQ(readKeyProperty(key, L"Unique Name"), readKeyProperty(key, L"Name"));
        EXPECT_EQ(readKeyProperty(key, L"ChainingMode"), utf16(L"ChainingModeCBC"));
        EXPECT_EQ(readKeyProperty(key, L"Lengths"), words({1024, 4096, 1024, 2048}));
        EXPECT_THAT(ofLevel(log.take(), "ERROR"), IsEmpty());
    }
}

TEST_F(KspKeys, RefusesPropertiesThatItDoesNotHave) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    size = UNTOUCHED;
    const auto refuse = [&](const wchar_t* name, const std::string& text) {
        expect(NTE_NOT_SUPPORTED, "KSPGetKeyProperty",
               [&] { return ksp.GetKeyProperty(hProv, key, name, nullptr, 0, &size, 0); },
               {"DEBUG KSP: GetKeyProperty: " + narrowed(name), "ERROR KSPGetKeyProperty: " + text});
    };
    for (const wchar_t* name : {L"name", L"", L"Chaining Mode", L"N\u0161m\u0441", L"Name "})
        refuse(name, "unsupported property");
    refuse(L"Security Descr", "NCRYPT_SECURITY_DESCR_PROPERTY not supported");
    EXPECT_EQ(size, UNTOUCHED);
    const auto get = refusalsOf("KSPGetKeyProperty", ksp.GetKeyProperty);
    const std::string missing = "KSPGetKeyProperty: pszProperty or pcbResult is null";
    get(NTE_INVALID_PARAMETER, missing, hProv, key, nullptr, nullptr, 0, &size, 0);
    get(NTE_INVALID_PARAMETER, missing, hProv, key, L"Name", nullptr, 0, nullptr, 0);
    const auto set = refusalsOf("KSPSetKeyProperty", ksp.SetKeyProperty);
    set(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: pszProperty is null", hProv, key, nullptr, nullptr, 0, 0);
    for (const std::wstring& name : {std::wstring(L"Name"), std::wstring(100'000, L'N')})
        set(NTE_NOT_SUPPORTED, "KSPSetKeyProperty: unsupported property", hProv, key, name.c_str(), nullptr, 0, 0);
}

TEST_F(KspKeys, TakesLengthUsageAndWindow) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const auto set = [&](const wchar_t* name, DWORD value, DWORD length) {
        EXPECT_EQ(setting(key, name, &value, length)(), ERROR_SUCCESS);
        EXPECT_EQ(setting(key, name, nullptr, length)(), ERROR_SUCCESS);
        return readWord(key, name);
    };
    for (const auto& [value, length, then] :
         {std::tuple<DWORD, DWORD, DWORD>{777, 3, 2048}, {777, 4, 777}, {0xFFFFFFFF, 9, 0xFFFFFFFF}}) {
        log.mark();
        EXPECT_EQ(set(L"Length", value, length), then);
    }
    EXPECT_THAT(log.take(), Contains("DEBUG KSP: Key length set to 4294967295").Times(1));
    for (const auto& [value, length, then] :
         {std::tuple<DWORD, DWORD, DWORD>{2, 4, 2}, {0, 4, 2}, {1, 4, 1}, {2, 3, 1}, {3, 4, 3}, {0x30, 4, 3}})
        EXPECT_EQ(set(L"Key Usage", value, length), then);
    keyOf(key)->keyUsage = 9;
    EXPECT_EQ(readWord(key, L"Key Usage"), 0u);
    const HWND window = reinterpret_cast<HWND>(0x1234);
    for (const DWORD length : {8, 4, 0}) {
        expectSet(setting(key, L"HWND Handle", length != 0 ? &window : nullptr, length));
        EXPECT_EQ(providerOf(hProv)->token()->window, window);
    }
}

TEST_F(KspKeys, TakesTheChainingModeByName) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    const auto set = [&](const wchar_t* mode, DWORD length) { return setting(key, L"ChainingMode", mode, length); };
    const auto mode = [&] { return readKeyProperty(key, L"ChainingMode"); };
    expectSet(set(L"ChainingModeECB", 32), {"DEBUG KSP: Chaining mode set to ECB"});
    expectSet(set(nullptr, 32));
    expectSet(set(L"ChainingModeCBC", 0));
    for (const wchar_t* other : {L"ChainingModeGCM", L"", L"ChainingModeCBC ", L"ChainingModeEC", L"chainingmodecbc"})
        expectRefused("KSPSetKeyProperty", set(other, 2), NTE_NOT_SUPPORTED, "KSP: Unsupported chaining mode");
    EXPECT_EQ(mode(), utf16(L"ChainingModeECB"));
    expectSet(set(L"ChainingModeCBC", 1), {"DEBUG KSP: Chaining mode set to CBC"});
    EXPECT_EQ(mode(), utf16(L"ChainingModeCBC"));
}

TEST_F(KspKeys, SetsTheVectorThatAllKeysShare) {
    const NCRYPT_KEY_HANDLE pair = openOnlyKey();
    const Bytes iv = bytes(32);
    const auto set = [&](NCRYPT_KEY_HANDLE key, DWORD length) {
        return setting(key, L"IV", length != 0 ? iv.data() : nullptr, length);
    };
    const auto shared = [] {
        const IvSnapshot snapshot = sharedIv();
        return static_cast<DWORD>(snapshot.length());
    };
    const std::tuple<NCRYPT_KEY_HANDLE, DWORD, DWORD> rows[] = {
        {aesKey(16), 16, 8}, {aesKey(32), 16, 17}, {aesKey(24), 8, 16}};
    for (const auto& [key, right, wrong] : rows) {
        expectRefused("KSPSetKeyProperty", set(key, wrong), NTE_INVALID_PARAMETER,
                      "KSP: IV size mismatch: got " + number(wrong) + ", expected " + number(right));
        expectSet(set(key, right), {"DEBUG KSP: IV set, size: " + number(right)});
        EXPECT_EQ(shared(), right);
        expectSet(set(key, 0), {"DEBUG KSP: IV cleared"});
        EXPECT_EQ(shared(), 0u);
    }
    expectSet(set(pair, 5), {"DEBUG KSP: IV set, size: 5"});
    EXPECT_EQ(shared(), 5u);
}

TEST_F(KspKeys, FindsItsCertificateByAliasAndElseByPublicKey) {
    const TalvikKeyPair record = scripted::keyPair(0xAB);
    TalvikCertificate byKey = scripted::certificateOf(scripted::keyPair(0x11), bytes(7));
    byKey.derLength = 0xFFFFFFFF;  // counts as the whole field
    const TalvikCertificate byAlias = scripted::certificateOf(record, bytes(9));
    const Bytes modulus = content(record.modulus, 256), wrong = filled(256, 0xAB);
    attachToken({record}, {});
    open();
    const NCRYPT_KEY_HANDLE key = openKey(hProv, record);
    const Lines calls = {"talvik_initDevice(\"T1\", true, null)", CERTIFICATE_LIST};
    size = UNTOUCHED;
    const Act query = [&] { return ksp.GetKeyProperty(hProv, key, L"SmartCardKeyCertificate", nullptr, 0, &size, 0); };
    const Lines refused = {"DEBUG KSP: GetKeyProperty: SmartCardKeyCertificate",
                           "ERROR KSP: Certificate not found for key"};
    expect(NTE_NOT_FOUND, "KSPGetKeyProperty", query, refused, calls);
    EXPECT_EQ(size, UNTOUCHED);

    attachToken({record}, {byKey, byAlias});
    expect(ERROR_SUCCESS, "KSPGetKeyProperty", query, {refused[0]}, calls);
    EXPECT_EQ(readKeyProperty(key, L"SmartCardKeyCertificate"), bytes(9));

    attachToken({record}, {byKey});
    scripted::always("talvik_getCertificateDetails", {.output = modulus});
    EXPECT_EQ(readKeyProperty(key, L"SmartCardKeyCertificate").size(), 3072u);
    for (const scripted::Outcome& outcome : {scripted::Outcome{1, modulus}, {.output = wrong}, {.output = Bytes{}}}) {
        scripted::next("talvik_getCertificateDetails", outcome);
        EXPECT_EQ(query(), NTE_NOT_FOUND);
    }
    // A handle without a public key has no certificate in one whose key cannot be read.
    keyOf(key)->publicKeyLength = 0;
    scripted::next("talvik_getCertificateDetails", {.output = Bytes{}});
    EXPECT_EQ(query(), NTE_NOT_FOUND);
    // An empty alias is that of any certificate that has none either.
    keyOf(key)->keyAliasLength = byKey.keyAliasLength = 0;
    attachToken({record}, {byKey, byAlias});
    EXPECT_EQ(readKeyProperty(key, L"SmartCardKeyCertificate").size(), 3072u);
}

TEST_F(KspKeys, StoresACertificateOfAtMostTheRecordsRoom) {
    const NCRYPT_KEY_HANDLE key = openOnlyKey();
    Bytes der = bytes(3073);
    const auto store = [&](const BYTE* from, DWORD length) {
        return setting(key, L"SmartCardKeyCertificate", from, length);
    };
    for (const Act& act : {store(nullptr, 5), store(der.data(), 0)})
        expectRefused("KSPSetKeyProperty", act, NTE_INVALID_PARAMETER,
                      "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty");
    for (const DWORD length : {3073u, 0xFFFFFFFFu})
        expectRefused("KSPSetKeyProperty", store(der.data(), length), NTE_INVALID_PARAMETER,
                      "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY certificate too large");
    const auto call = [](const Bytes& stored) {
        return Lines{"talvik_importCertificate(\"T1\", \"1234\", {keyId=" + KEY_ID + " der=" + hex(stored) + "/" +
                     number(stored.size()) + " keyAlias=ab/1 label=\"label 171\"}, null)"};
    };
    der.resize(3072);
    scripted::next("talvik_importCertificate", {6});
    expect(NTE_INTERNAL_ERROR, "KSPSetKeyProperty", store(der.data(), 3072),
           PIN_KNOWN + "ERROR KSP: Import certificate failed: 6", call(der));
    expect(ERROR_SUCCESS, "KSPSetKeyProperty", store(der.data(), 1),
           PIN_KNOWN + "DEBUG KSP: Certificate stored successfully", call({1}));
}

}  // namespace
