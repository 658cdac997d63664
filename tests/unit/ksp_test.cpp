#include "unit/ksp_test.h"

using namespace testing;
using namespace talvik;

namespace {

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& functionTable() {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    EXPECT_EQ(GetKeyStorageInterface(L"any name", &table, 0), ERROR_SUCCESS);
    return *table;
}

}  // namespace

KspTest::KspTest() : ksp(functionTable()) {
    invalid = reinterpret_cast<NCRYPT_PROV_HANDLE>(&neverOpened_);
    room = UNTOUCHED;
    own("hProv", hProv, [this](NCRYPT_PROV_HANDLE made) { return ksp.FreeProvider(made); });
    own("key", key, [this](NCRYPT_KEY_HANDLE made) { return ksp.FreeKey(0, made); });
    state = [this] { return factsOfKspKey(key); };
}

NCRYPT_PROV_HANDLE KspTest::open() {
    takeOver();
    EXPECT_EQ(ksp.OpenProvider(&hProv, L"any name", 0), ERROR_SUCCESS);
    forgetSoFar();
    return hProv;
}

NCRYPT_KEY_HANDLE KspTest::openKey(const TalvikKeyPair& record) {
    takeOver();
    const std::string name = scripted::containerName(record);
    EXPECT_EQ(ksp.OpenKey(hProv, &key, std::wstring(name.begin(), name.end()).c_str(), 0, 0), ERROR_SUCCESS);
    forgetSoFar();
    return key;
}

NCRYPT_KEY_HANDLE KspTest::aesKey(std::size_t length) {
    takeOver();
    Bytes blob = words({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, static_cast<DWORD>(length)}) + bytes(length, 0xA0);
    EXPECT_EQ(ksp.ImportKey(hProv, 0, L"KeyDataBlob", nullptr, &key, blob.data(), static_cast<DWORD>(blob.size()), 0),
              ERROR_SUCCESS);
    forgetSoFar();
    return key;
}

NCRYPT_KEY_HANDLE KspTest::openOnlyKey(std::uint32_t keyType, std::uint32_t modulusBytes) {
    const TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, keyType, modulusBytes);
    attachTokens({record});
    open();
    setDevicePassword(DEVICE, PIN);
    return openKey(record);
}

std::string KspTest::textOf(long status) const {
    return status == ERROR_SUCCESS ? "OK" : recording::codeName(static_cast<unsigned long>(status));
}

void KspTest::showPinHandling(const std::string& operation, const std::function<long(DWORD flags)>& call) {
    showRenewal(operation, [&] { return call(0); });
    const auto silently = [&](const std::string& name) { show(name, [&] { return call(NCRYPT_SILENT_FLAG); }); };
    silently("silently, no PIN");
    setDevicePassword(DEVICE, PIN);
    silently("silently, a PIN");
    scripted::next(operation, {49});
    silently("silently, expired");
    EXPECT_FALSE(isPasswordValidated(DEVICE));
    attachTokens({}, true);
    silently("silently, single sign-on");
}

Bytes KspTest::readKeyProperty(const wchar_t* name, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    return readBySizeRule([&](BYTE* buffer, DWORD length, DWORD* needed) {
        return ksp.GetKeyProperty(hProv, key, name, buffer, length, needed, 0);
    });
}

Bytes readBySizeRule(const std::function<SECURITY_STATUS(BYTE*, DWORD, DWORD*)>& read) {
    DWORD size = UNTOUCHED;
    EXPECT_EQ(read(nullptr, 0, &size), ERROR_SUCCESS);
    Bytes value(size + 1, 0xCD);
    DWORD reported = UNTOUCHED;
    EXPECT_EQ(read(value.data(), size - 1, &reported), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(reported, size);
    EXPECT_THAT(value, Each(0xCD));
    reported = UNTOUCHED;
    EXPECT_EQ(read(value.data(), size, &reported), ERROR_SUCCESS);
    EXPECT_EQ(reported, size);
    EXPECT_EQ(value.back(), 0xCD);
    value.resize(size);
    return value;
}

std::string factsOfKspKey(NCRYPT_KEY_HANDLE handle) {
    if (handle == 0 || handle == UNTOUCHED_HANDLE)
        return "";
    const KspKey& key = *keyOf(handle);
    return Facts()("id", key.keyId, key.keyIdLength)("alg", key.algorithm)("usage", key.keyUsage)(
        "bits", key.keyLength)("alias", key.keyAlias, key.keyAliasLength)(
        "label", std::string(key.label, strnlen(key.label, sizeof key.label)))("flag", key.storageFlag)(
        "finalized", key.isFinalized)("ecb", key.useEcb)("public", key.publicKey, key.publicKeyLength)(
        "aes", key.symmetricKey, key.symmetricKeyLength);
}

Bytes utf16(const std::wstring& text) {
    const auto* const first = reinterpret_cast<const unsigned char*>(text.c_str());
    return {first, first + (text.size() + 1) * sizeof(wchar_t)};
}
