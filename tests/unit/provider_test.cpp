#include "unit/provider_test.h"

#include <numeric>

#include "module.h"
#include "token/device_monitor.h"

using namespace testing;

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Lines operator+(Lines left, const std::string& line) {
    left.push_back(line);
    return left;
}

std::string validation(const std::string& pin) {
    return "talvik_validatePassword(\"T1\", \"" + pin + "\", 1, 0, null)";
}

std::string storeAesCall(const Bytes& value, unsigned int type) {
    return "talvik_importAesKey(\"T1\", \"1234\", {key=" + hex(value) + "/" + number(value.size()) +
           " label=\"\" name=\"\" usage=0 keyType=" + number(type) + "}, null)";
}

std::string unwrapCall(const Bytes& keyId, bool storageFlag) {
    return "talvik_decrypt_aes(\"T1\", " + hex(keyId) + ", " + number(keyId.size()) + ", 0102030405, 5, out, out, " +
           (storageFlag ? "true" : "false") + ", null, 0, null)";
}

void attachToken(std::vector<TalvikKeyPair> keyPairs, std::vector<TalvikCertificate> certificates,
                 std::vector<TalvikSymmetricKey> aesKeys) {
    scripted::attach({{DEVICE, {scripted::tokenInfo("one"), keyPairs, certificates, aesKeys}}});
}

void attachTokens(std::vector<TalvikKeyPair> keyPairs, bool loggedIn) {
    scripted::Token first{scripted::tokenInfo("one", loggedIn), std::move(keyPairs), {}, {}};
    scripted::Token second{scripted::tokenInfo("two"), {}, {}, {}};
    scripted::attach({{DEVICE, std::move(first)}, {"T2", std::move(second)}});
}

ProviderTest::ProviderTest() {
    setLogLevel(3);
    scripted::reset();
    attachTokens({});
    talvik::forgetEverything();
    talvik::containerQueried = false;
    talvik::setSharedIv({});
    forgetSoFar();
}

ProviderTest::~ProviderTest() {
    for (HCRYPTPROV context : acquired_)
        EXPECT_TRUE(CPReleaseContext(context, 0));
    robot.finish();
}

HCRYPTPROV ProviderTest::acquire(const std::string& container, DWORD flags) {
    HCRYPTPROV context = 0;
    EXPECT_TRUE(CPAcquireContext(&context, container.empty() ? nullptr : container.c_str(), flags, someTable()));
    acquired_.push_back(context);
    forgetSoFar();
    return context;
}

void ProviderTest::forgetSoFar() {
    log.mark();
    scripted::takeCalls();
}

void ProviderTest::expectOutcome(const Call& call, BOOL result, ErrorCode error, const Lines& lines, const Lines& calls,
                                 Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    forgetSoFar();
    SetLastError(UNTOUCHED_ERROR);
    const BOOL actual = call();
    const DWORD lastError = GetLastError();
    EXPECT_EQ(actual, result);
    EXPECT_EQ(lastError, static_cast<DWORD>(error))
        << std::hex << lastError << " instead of " << static_cast<DWORD>(error);
    EXPECT_EQ(log.entries(), lines);
    EXPECT_EQ(scripted::takeCalls(), calls);
}

void ProviderTest::expectSuccess(const Call& call, const Lines& lines, const Lines& calls, Where where) {
    expectOutcome(call, TRUE, UNTOUCHED_ERROR, lines, calls, where);
}

void ProviderTest::expectFailure(const Call& call, ErrorCode error, const Lines& lines, const Lines& calls,
                                 Where where) {
    expectOutcome(call, FALSE, error, lines, calls, where);
}

void ProviderTest::expectError(const Call& call, ErrorCode error, const std::string& lastLine, Where where) {
    const ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "called from here");
    forgetSoFar();
    SetLastError(UNTOUCHED_ERROR);
    EXPECT_FALSE(call());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error));
    EXPECT_EQ((Lines{""} + log.entries()).back(), lastLine);
}

void ProviderTest::expectRefusal(const std::string& entryPoint, const Call& call, ErrorCode error,
                                 const std::string& text) {
    SCOPED_TRACE(text);
    expectError(call, error, "ERROR " + text);
    const Lines lines = log.entries();
    ASSERT_THAT(ofLevel(lines, "ERROR"), SizeIs(1));
    EXPECT_EQ(lines.front(), "DEBUG " + entryPoint);
    EXPECT_THAT(scripted::takeCalls(), IsEmpty());
}

void ProviderTest::expectRenewal(const UnderPin& of, Where where) {
    const std::string refused = "ERROR " + of.entryPoint + ": ensurePasswordValidated failed";
    const Lines asked = Lines{NOT_VALIDATED} + dialogShown;
    const Lines cancelled = {"DEBUG User cancelled password dialog", "ERROR Password validation failed"};
    const Lines expired =
        of.head + VALIDATED + of.before + ("DEBUG " + of.entryPoint + ": SSO expired, re-prompting for PIN") + asked;
    const std::string again = of.deviceCall("5678");
    robot.enters("5678").enters("5678").cancels().cancels();
    const auto expire = [&] { scripted::next(of.operation, {.status = 49, .length = 3}); };
    expire();
    expectSuccess(of.call, expired + of.after, {of.deviceCall("1234"), TOKEN_INFO, validation("5678"), again}, where);
    expire();
    expire();
    expectFailure(of.call, NTE_PROVIDER_DLL_FAIL, expired + of.failed, {again, TOKEN_INFO, validation("5678"), again},
                  where);
    expire();
    expectFailure(of.call, NTE_FAIL, expired + cancelled + (refused + " after SSO expiry"), {again, TOKEN_INFO}, where);
    expectFailure(of.call, NTE_FAIL, of.head + asked + cancelled + refused, {TOKEN_INFO}, where);
    EXPECT_EQ(robot.finish(), Lines(4, "PIN"));
}

void ProviderTest::offer(DWORD room) {
    data = filled(4096, 0xCD);
    size = room;
}

Bytes ProviderTest::delivered() const {
    const auto end = data.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(size, data.size()));
    EXPECT_TRUE(std::all_of(end, data.end(), [](unsigned char byte) { return byte == 0xCD; }));
    return {data.begin(), end};
}

bool ProviderTest::isOnlyTold(DWORD needed) const {
    return size == needed && data == filled(data.size(), 0xCD);
}

VTableProvStruc* someTable() {
    static int table;
    return reinterpret_cast<VTableProvStruc*>(&table);
}

Bytes bytes(std::size_t count, unsigned char first) {
    Bytes value(count);
    std::iota(value.begin(), value.end(), first);
    return value;
}

Bytes filled(std::size_t count, unsigned char value) {
    return Bytes(count, value);
}

std::string hex(const Bytes& value) {
    std::string text;
    for (const unsigned char byte : value) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

std::string upperHex(const Bytes& value) {
    return talvik::bytesToHexString(value.data(), static_cast<int>(value.size()));
}

Bytes cut(const Bytes& value, std::size_t length) {
    return content(value.data(), length);
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes reversed(const Bytes& value) {
    return {value.rbegin(), value.rend()};
}

Bytes words(std::initializer_list<std::uint32_t> values) {
    Bytes blob;
    for (const std::uint32_t value : values)
        for (int i = 0; i < 4; ++i)
            blob.push_back(static_cast<unsigned char>(value >> 8 * i));
    return blob;
}

TalvikSymmetricKey wrappingKey(std::uint32_t type, unsigned char fill, unsigned char idFill, std::int32_t idLength) {
    TalvikSymmetricKey key = {};
    std::ranges::fill(key.identifier, fill);
    std::ranges::fill(key.keyId, idFill);
    key.keyIdLength = idLength;
    key.keyType = type;
    key.storageFlag = fill & 1;
    return key;
}

Bytes content(const unsigned char* field, std::size_t length) {
    return {field, field + length};
}

std::string number(const void* pointer) {
    return std::to_string(reinterpret_cast<std::uintptr_t>(pointer));
}

// The resources of the provider are linked into this program; the monitor runs from the first test to the last.
int main(int argc, char** argv) {
    InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    talvik::recordModuleInstance(GetModuleHandleA(nullptr));
    talvik::startDeviceMonitor();
    const int result = RUN_ALL_TESTS();
    talvik::stopDeviceMonitor();
    return result;
}
