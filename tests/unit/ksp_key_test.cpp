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
    SECURITY_STATUS set(const wchar_t* name, const void* value, DWORD length) {
        return ksp.SetKeyProperty(hProv, key, name, static_cast<BYTE*>(const_cast<void*>(value)), length, 0);
    }
    DWORD readWord(const wchar_t* name) { return valueOf<DWORD>(readKeyProperty(name)); }
    SECURITY_STATUS open(const std::wstring& name) { return ksp.OpenKey(hProv, &key, name.c_str(), 0, 0); }
    using KspTest::open;
};

TEST_F(KspKeys, OpensAKeyByItsHexName) {
    const TalvikKeyPair first = scripted::keyPair(0x11, TALVIK_USAGE_SIGN);
    const TalvikKeyPair second = scripted::keyPair(0xAB, TALVIK_USAGE_EXCHANGE, TALVIK_KEY_EC_P521, 132);
    attachTokens({first, second});
    open();
    SHOW(open(nameOf(second)));
    // Names that no key has are refused whatever their length.
    std::wstring lower = nameOf(second), high = lower;
    for (wchar_t& digit : lower)
        digit = static_cast<wchar_t>(towlower(digit));
    high[0] = L'\u0142';  // its low byte is 'B'
    for (const std::wstring& name : {lower, high, nameOf(second) + L"0", nameOf(second).substr(1),
                                     std::wstring(L"\u0160\u0165\U0001F621"), std::wstring(50'000, L'A')})
        show("another name", [&] { return open(name); });
    // An earlier key with the name as its label is taken.
    TalvikKeyPair labelled = first;
    *std::ranges::copy(scripted::containerName(second), labelled.label).out = '\0';
    attachTokens({labelled, second});
    show("labelled", [&] { return open(nameOf(second)); });
    EXPECT_THAT(keyOf(key)->keyId, Each(0x11));
}

TEST_F(KspKeys, BindsTheProviderToTheTokenThatHoldsTheKey) {
    const TalvikKeyPair onSecond = scripted::keyPair(0x22);
    scripted::attach({{"T1", {scripted::tokenInfo("one"), {scripted::keyPair(0x11)}, {}, {}}},
                      {"T2", {scripted::tokenInfo("two"), {onSecond}, {}, {}}}});
    open();
    state = [this] { return "bound to " + providerOf(hProv)->token()->deviceId; };
    SHOW(open(nameOf(onSecond)));
    // A label counts for the token, but opens no key. Without a name the provider stays where it is.
    SHOW(open(L"label 17"));
    SHOW(ksp.OpenKey(hProv, &key, nullptr, AT_SIGNATURE, 0));
}

TEST_F(KspKeys, ARecordThatLiesAboutItsLengthsCountsAsFull) {
    TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, 99);
    record.modulusLength = record.keyAliasLength = 0xFFFFFFFF;
    std::ranges::fill(record.label, 'L');
    attachTokens({record});
    open();
    SHOW(open(nameOf(record)));
    EXPECT_EQ(readWord(L"Length"), 0u);
    EXPECT_EQ(readKeyProperty(L"Algorithm Name"), utf16(L"RSA"));
}

TEST_F(KspKeys, RefusesWhatIsMissing) {
    open();
    NCryptKeyName* name = nullptr;
    void* enumeration = nullptr;
    showNulls("KSPCreatePersistedKey", ksp.CreatePersistedKey, hProv, &key, L"rsa", nullptr, 0, 0);
    SHOW(ksp.CreatePersistedKey(hProv, &key, L"SHA256", nullptr, 0, 0));
    SHOW(ksp.EnumKeys(hProv, nullptr, nullptr, &enumeration, 0));
    SHOW(ksp.EnumKeys(hProv, nullptr, &name, nullptr, 0));
    showNulls("KSPOpenKey", ksp.OpenKey, hProv, &key, L"x", 0, 0);
    showNulls("KSPFinalizeKey", ksp.FinalizeKey, hProv, 0, 0);
    showNulls("KSPDeleteKey", ksp.DeleteKey, hProv, 0, 0);
    SHOW(ksp.FinalizeKey(hProv, 0, 0));
    SHOW(ksp.DeleteKey(hProv, 0, 0));
    SHOW(ksp.FreeKey(0, 0));
    openOnlyKey();
    showNulls("KSPGetKeyProperty", ksp.GetKeyProperty, hProv, key, L"Name", data.data(), 600, &size, 0);
    showNulls("KSPSetKeyProperty", ksp.SetKeyProperty, hProv, key, L"Name", data.data(), 600, 0);
    for (const wchar_t* property : {L"name", L"", L"Chaining Mode", L"N\u0161m\u0441", L"Name ", L"Security Descr"})
        show("get " + narrowed(property),
             [&] { return ksp.GetKeyProperty(hProv, key, property, nullptr, 0, &size, 0); });
    SHOW(set(std::wstring(100'000, L'N').c_str(), nullptr, 0));
}

TEST_F(KspKeys, MakesAKeyOnTheTokenOnceItIsFinalized) {
    open();
    setDevicePassword(DEVICE, PIN);
    scripted::generates(scripted::keyPair(0xCD, 0, 0));
    struct {
        const wchar_t* algorithm;
        DWORD keySpec, length;  // set as a property; 0: not set
        DWORD lengthThen;
    } const rows[] = {
        {L"RSA", AT_SIGNATURE, 0, 2048},      {L"RSA", 0, 1024, 1024},   {L"RSA", AT_KEYEXCHANGE, 3072, 3072},
        {L"RSA", AT_KEYEXCHANGE, 4096, 4096}, {L"RSA", 0, 512, 512},     {L"ECDSA_P256", AT_KEYEXCHANGE, 0, 256},
        {L"ECDSA_P384", 0, 0, 384},           {L"ECDSA_P521", 0, 0, 521}};
    std::vector<NCRYPT_KEY_HANDLE> made;
    for (const auto& row : rows) {
        show("creation of " + narrowed(row.algorithm),
             [&] { return ksp.CreatePersistedKey(hProv, &key, row.algorithm, L"my key", row.keySpec, 0); });
        EXPECT_EQ(readKeyProperty(L"Name"), utf16(std::wstring(32, L'0')));
        EXPECT_TRUE(row.length == 0 || set(L"Length", &row.length, 4) == ERROR_SUCCESS);
        made.push_back(key);
    }
    for (const int status : {4, 0})
        for (std::size_t i = 0; i < made.size(); ++i) {
            key = made[i];
            scripted::next("talvik_generateKeyPair", {status});
            show("finalizing, status " + number(status), [&] { return ksp.FinalizeKey(hProv, key, 0); });
        }
    for (std::size_t i = 0; i < made.size(); ++i) {
        key = made[i];
        SHOW(ksp.FinalizeKey(hProv, key, 0));
        EXPECT_EQ(readWord(L"Length"), rows[i].lengthThen);
        EXPECT_EQ(readKeyProperty(L"Unique Name"), utf16(std::wstring(L"CDCDCDCDCDCDCDCDCDCDCDCDCDCDCDCD")));
        EXPECT_EQ(readKeyProperty(L"Algorithm Name"), utf16(rows[i].algorithm));
    }
}

TEST_F(KspKeys, DeletesAKeyAndKeepsItsHandle) {
    openOnlyKey();
    scripted::next("talvik_deleteKeyPair", {8});
    SHOW(ksp.DeleteKey(hProv, key, 0));
    SHOW(ksp.DeleteKey(hProv, key, 0));
}

TEST_F(KspKeys, WithoutThePinNothingIsMadeStoredOrDeleted) {
    const NCRYPT_KEY_HANDLE opened = openOnlyKey();
    clearDevicePassword(DEVICE);
    takeOver();
    EXPECT_EQ(ksp.CreatePersistedKey(hProv, &key, L"RSA", nullptr, 0, 0), ERROR_SUCCESS);
    robot.cancels().cancels().cancels();
    SHOW(ksp.FinalizeKey(hProv, key, 0));
    SHOW(ksp.FinalizeKey(hProv, key, NCRYPT_SILENT_FLAG));
    SHOW(ksp.DeleteKey(hProv, opened, 0));
    SHOW(ksp.DeleteKey(hProv, opened, NCRYPT_SILENT_FLAG));
    SHOW(set(L"SmartCardKeyCertificate", "der", 3));
    setDevicePassword(DEVICE, PIN);
    SHOW(ksp.DeleteKey(hProv, opened, NCRYPT_SILENT_FLAG));
}

TEST_F(KspKeys, EnumeratesTheKeysOfTheFirstCall) {
    attachTokens({scripted::keyPair(0x11, TALVIK_USAGE_SIGN), scripted::keyPair(0x22, TALVIK_USAGE_EXCHANGE, 6),
                  scripted::keyPair(0x33, TALVIK_USAGE_BOTH, 5), scripted::keyPair(0x44, 7, 99)});
    open();
    void* enumeration = nullptr;
    NCryptKeyName* name = nullptr;
    state = [&]() -> std::string {
        return name == nullptr ? ""
                               : narrowed(name->pszName) + ' ' + narrowed(name->pszAlgid) + ' ' +
                                     number(name->dwLegacyKeySpec) + ' ' + number(name->dwFlags);
    };
    for (int i = 0; i < 6; ++i) {
        show("next", [&] { return ksp.EnumKeys(hProv, nullptr, &name, &enumeration, 0); });
        EXPECT_EQ(ksp.FreeBuffer(std::exchange(name, nullptr)), ERROR_SUCCESS);
        attachTokens({scripted::keyPair(0x55)});  // not seen by this enumeration
    }
    EXPECT_EQ(ksp.FreeBuffer(std::exchange(enumeration, nullptr)), ERROR_SUCCESS);
    attachTokens({});
    show("of none", [&] { return ksp.EnumKeys(hProv, nullptr, &name, &enumeration, 0); });
    EXPECT_EQ(ksp.FreeBuffer(enumeration), ERROR_SUCCESS);
    state = nullptr;
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
        openOnlyKey(row.keyType);
        EXPECT_EQ(readKeyProperty(L"Algorithm Name"), utf16(row.name));
        EXPECT_EQ(readKeyProperty(L"Algorithm Group"), utf16(row.group));
        EXPECT_EQ(readWord(L"Length"), row.bits);
        EXPECT_EQ(readWord(L"Block Length"), row.blockLength);
        EXPECT_EQ(readWord(L"Export Policy"), 1u);
        EXPECT_EQ(readWord(L"Key Type"), 0u);
        EXPECT_EQ(valueOf<NCRYPT_PROV_HANDLE>(readKeyProperty(L"Provider Handle")), hProv);
        EXPECT_EQ(readKeyProperty(L"Name").size(), 66u);
        EXPECT_EQ(readKeyProperty(L"Unique Name"), readKeyProperty(L"Name"));
        EXPECT_EQ(readKeyProperty(L"ChainingMode"), utf16(L"ChainingModeCBC"));
        EXPECT_EQ(readKeyProperty(L"Lengths"), words({1024, 4096, 1024, 2048}));
        EXPECT_THAT(ofLevel(log.take(), "ERROR"), IsEmpty());
    }
}

TEST_F(KspKeys, TakesLengthUsageAndWindow) {
    openOnlyKey();
    state = [this] { return factsOfKspKey(key) + (providerOf(hProv)->token()->window != nullptr ? " window" : ""); };
    for (const auto& [value, length] : {std::pair<DWORD, DWORD>{777, 3}, {777, 4}, {0xFFFFFFFF, 9}}) {
        show("length " + number(value) + " of " + number(length),
             [&, value = value, length = length] { return set(L"Length", &value, length); });
        show("no length", [&] { return set(L"Length", nullptr, 4); });
    }
    for (const auto& [value, length] :
         {std::pair<DWORD, DWORD>{2, 4}, {0, 4}, {1, 4}, {2, 3}, {3, 4}, {0x31, 4}, {0x30, 4}})
        show("usage " + number(value) + " of " + number(length),
             [&, value = value, length = length] { return set(L"Key Usage", &value, length); });
    keyOf(key)->keyUsage = 9;
    EXPECT_EQ(readWord(L"Key Usage"), 0u);
    const HWND window = reinterpret_cast<HWND>(0x1234);
    for (const DWORD length : {8, 4, 0})
        show("window of " + number(length),
             [&] { return set(L"HWND Handle", length != 0 ? &window : nullptr, length); });
    EXPECT_EQ(providerOf(hProv)->token()->window, window);
}

TEST_F(KspKeys, TakesTheChainingModeByName) {
    openOnlyKey();
    const auto showSet = [&](const wchar_t* mode, DWORD length) {
        show(mode == nullptr ? "none" : narrowed(mode), [&] { return set(L"ChainingMode", mode, length); });
    };
    showSet(L"ChainingModeECB", 32);
    showSet(nullptr, 32);
    showSet(L"ChainingModeCBC", 0);
    for (const wchar_t* other : {L"ChainingModeGCM", L"", L"ChainingModeCBC ", L"ChainingModeEC", L"chainingmodecbc"})
        showSet(other, 2);
    EXPECT_EQ(readKeyProperty(L"ChainingMode"), utf16(L"ChainingModeECB"));
    showSet(L"ChainingModeCBC", 1);
}

TEST_F(KspKeys, SetsTheVectorThatAllKeysShare) {
    openOnlyKey();
    state = [] { return "iv of " + number(sharedIv().length()); };
    const Bytes iv = bytes(32);
    const auto showSet = [&](const std::string& keyName, DWORD length) {
        show(keyName + ", iv of " + number(length),
             [&] { return set(L"IV", length != 0 ? iv.data() : nullptr, length); });
    };
    showSet("RSA", 5);
    for (const auto& [keyLength, right, wrong] :
         {std::tuple<std::size_t, DWORD, DWORD>{16, 16, 8}, {32, 16, 17}, {24, 8, 16}}) {
        aesKey(keyLength);
        for (const DWORD length : {wrong, right, DWORD{0}})
            showSet("AES of " + number(keyLength), length);
    }
}

TEST_F(KspKeys, FindsItsCertificateByAliasAndElseByPublicKey) {
    const TalvikKeyPair record = scripted::keyPair(0xAB);
    TalvikCertificate byKey = scripted::certificateOf(scripted::keyPair(0x11), bytes(7));
    byKey.derLength = 0xFFFFFFFF;  // counts as the whole field
    const TalvikCertificate byAlias = scripted::certificateOf(record, bytes(9));
    const Bytes modulus = content(record.modulus, 256), wrong = filled(256, 0xAB);
    attachToken({record}, {});
    open();
    openKey(record);
    const auto showFound = [&](const std::string& name, const scripted::Outcome& details) {
        scripted::next("talvik_getCertificateDetails", details);
        show(name,
             [&] { return ksp.GetKeyProperty(hProv, key, L"SmartCardKeyCertificate", data.data(), 4000, &size, 0); });
    };
    showFound("none", {});
    attachToken({record}, {byKey, byAlias});
    showFound("by alias", {});
    EXPECT_EQ(readKeyProperty(L"SmartCardKeyCertificate"), bytes(9));
    attachToken({record}, {byKey});
    scripted::reset();
    attachToken({record}, {byKey});
    showFound("by key", {.output = modulus});
    showFound("unreadable", {1, modulus});
    showFound("another key", {.output = wrong});
    showFound("no key", {.output = Bytes{}});
    // A handle without a public key has no certificate in one whose key cannot be read.
    keyOf(key)->publicKeyLength = 0;
    showFound("no key, handle without one", {.output = Bytes{}});
    // An empty alias is that of any certificate that has none either.
    keyOf(key)->keyAliasLength = byKey.keyAliasLength = 0;
    attachToken({record}, {byKey, byAlias});
    showFound("empty alias", {});
}

TEST_F(KspKeys, StoresACertificateOfAtMostTheRecordsRoom) {
    openOnlyKey();
    const Bytes der = bytes(3073);
    const auto showStored = [&](const BYTE* from, DWORD length) {
        show("certificate of " + number(length), [&] { return set(L"SmartCardKeyCertificate", from, length); });
    };
    showStored(nullptr, 5);
    for (const DWORD length : {0u, 3073u, 0xFFFFFFFFu, 3072u, 1u})
        showStored(der.data(), length);
    scripted::next("talvik_importCertificate", {6});
    showStored(der.data(), 1);
}

}  // namespace
