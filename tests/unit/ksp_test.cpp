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

KspTest::KspTest() : ksp(functionTable()) {}

KspTest::~KspTest() {
    for (NCRYPT_KEY_HANDLE key : keys_)
        EXPECT_EQ(ksp.FreeKey(hProv, key), ERROR_SUCCESS);
    for (NCRYPT_PROV_HANDLE provider : providers_)
        EXPECT_EQ(ksp.FreeProvider(provider), ERROR_SUCCESS);
}

NCRYPT_PROV_HANDLE KspTest::open() {
    EXPECT_EQ(ksp.OpenProvider(&hProv, L"any name", 0), ERROR_SUCCESS);
    providers_.push_back(hProv);
    forgetSoFar();
    return hProv;
}

NCRYPT_KEY_HANDLE KspTest::keep(NCRYPT_KEY_HANDLE key) {
    if (std::ranges::find(keys_, key) == keys_.end())
        keys_.push_back(key);
    return key;
}

NCRYPT_KEY_HANDLE KspTest::openKey(NCRYPT_PROV_HANDLE provider, const TalvikKeyPair& record) {
    NCRYPT_KEY_HANDLE key = 0;
    const std::string name = scripted::containerName(record);
    EXPECT_EQ(ksp.OpenKey(provider, &key, std::wstring(name.begin(), name.end()).c_str(), 0, 0), ERROR_SUCCESS);
    forgetSoFar();
    return keep(key);
}

NCRYPT_KEY_HANDLE KspTest::aesKey(std::size_t length) {
    Bytes blob = words({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, static_cast<DWORD>(length)}) + bytes(length, 0xA0);
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(ksp.ImportKey(hProv, 0, L"KeyDataBlob", nullptr, &key, blob.data(), static_cast<DWORD>(blob.size()), 0),
              ERROR_SUCCESS);
    forgetSoFar();
    return keep(key);
}

NCRYPT_KEY_HANDLE KspTest::openOnlyKey(std::uint32_t keyType, std::uint32_t modulusBytes) {
    const TalvikKeyPair record = scripted::keyPair(0xAB, TALVIK_USAGE_BOTH, keyType, modulusBytes);
    attachTokens({record});
    open();
    setDevicePassword(DEVICE, PIN);
    return openKey(hProv, record);
}

void KspTest::expect(SECURITY_STATUS status, const std::string& entryPoint, const Act& act, const Lines& lines,
                     const Lines& deviceCalls, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    forgetSoFar();
    const SECURITY_STATUS actual = act();
    EXPECT_EQ(actual, status) << std::hex << actual << " instead of " << status;
    EXPECT_EQ(log.entries(), Lines{"DEBUG " + entryPoint} + lines);
    EXPECT_EQ(scripted::takeCalls(), deviceCalls);
}

void KspTest::expectError(const Act& act, SECURITY_STATUS status, const std::string& lastLine, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    forgetSoFar();
    EXPECT_EQ(act(), status);
    EXPECT_EQ((Lines{""} + log.entries()).back(), lastLine);
}

void KspTest::expectRefused(const std::string& entryPoint, const Act& act, SECURITY_STATUS status,
                            const std::string& text, Where where) {
    SCOPED_TRACE(text);
    expect(status, entryPoint, act, {"ERROR " + text}, {}, where);
}

void KspTest::expectPinHandling(const UnderPin& of, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    const Act act = of.calling(0), silently = of.calling(NCRYPT_SILENT_FLAG);
    const Lines expired = PIN_KNOWN + of.before + ("DEBUG KSP: " + of.name + " SSO expired, re-prompting for PIN");
    const std::string refused = "ERROR " + of.entryPoint + ": password validation failed";
    const std::string hidden = "ERROR " + of.entryPoint + ": silent mode requested but PIN not validated";
    const std::string call = of.deviceCall(PIN), again = of.deviceCall("5678");
    robot.enters("5678").enters(PIN).cancels().cancels();
    const auto expire = [&] { scripted::next(of.operation, {49}); };
    expire();
    expect(ERROR_SUCCESS, of.entryPoint, act, expired + PIN_ASKED + of.after,
           {call, TOKEN_INFO, validation("5678"), again});
    expire();
    expire();
    expect(NTE_INTERNAL_ERROR, of.entryPoint, act, expired + PIN_ASKED + ("ERROR KSP: " + of.failed + ": 49"),
           {again, TOKEN_INFO, validation(PIN), call});
    expire();
    expectError(act, NTE_FAIL, refused + " after SSO expiry");
    expectError(act, NTE_FAIL, refused);
    expect(NTE_SILENT_CONTEXT, of.entryPoint, silently, {hidden}, {TOKEN_INFO});
    talvik::setDevicePassword(DEVICE, PIN);
    EXPECT_EQ(silently(), ERROR_SUCCESS);
    expire();
    expect(NTE_SILENT_CONTEXT, of.entryPoint, silently, expired + hidden, {call, TOKEN_INFO});
    EXPECT_FALSE(talvik::isPasswordValidated(DEVICE));
    attachTokens({}, true);
    EXPECT_EQ(silently(), ERROR_SUCCESS);
    EXPECT_EQ(scripted::takeCalls().back(), of.deviceCall(""));
    EXPECT_EQ(robot.finish(), Lines(4, "PIN"));
}

Bytes KspTest::readKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    return readBySizeRule([&](BYTE* buffer, DWORD room, DWORD* size) {
        return ksp.GetKeyProperty(hProv, key, name, buffer, room, size, 0);
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

Bytes utf16(const std::wstring& text) {
    const auto* const first = reinterpret_cast<const unsigned char*>(text.c_str());
    return {first, first + (text.size() + 1) * sizeof(wchar_t)};
}
