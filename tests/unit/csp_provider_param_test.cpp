#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

const std::string NAME = "Talvik Cryptographic Provider CSP";

Bytes terminated(const std::string& value) {
    return {value.c_str(), value.c_str() + value.size() + 1};
}
Lines head(DWORD param) {
    return {"DEBUG CPGetProvParam", "DEBUG CPGetProvParam input : " + number(param),
            "DEBUG CPGetProvParam : " + number(param)};
}
Lines setHead(DWORD param) {
    return {"DEBUG CPSetProvParam", "DEBUG CPSetProvParam - input param : " + number(param)};
}

class CspProviderParamTest : public ProviderTest {
  protected:
    CspProviderParamTest() {
        attachTokens({scripted::keyPair(0x11, 1), scripted::keyPair(0x22, 2)});
        prov = acquire(TWO);
        useHardwareRng = 1;
    }
    ~CspProviderParamTest() override { useHardwareRng = 1; }

    // Into a buffer of `room` bytes before canaries, or a null one.
    Call get(DWORD param, DWORD room, DWORD flags = 0, bool hasBuffer = true) {
        return [=, this] {
            offer(room);
            return CPGetProvParam(prov, param, hasBuffer ? data.data() : nullptr, &size, flags);
        };
    }
    Call set(DWORD param, const void* value) {
        return [=, this] { return CPSetProvParam(prov, param, static_cast<const BYTE*>(value), 7); };
    }
    // TRUE with the size and ERROR_MORE_DATA left behind.
    void expectMoreData(const Call& call, DWORD needed, const Lines& lines, const Lines& calls = {}) {
        expectOutcome(call, TRUE, ERROR_MORE_DATA, lines, calls);
        EXPECT_TRUE(isOnlyTold(needed));
    }

    HCRYPTPROV prov = 0;
};

TEST_F(CspProviderParamTest, SimpleOnesAreWrittenWhenTheyFitAndSucceedWhenNot) {
    const Lines copying = {"DEBUG CPGetProvParam - copying container"};
    struct {
        DWORD param;
        Bytes value;
        std::size_t reported;  // after writing
        Lines always = {}, whenWritten = {};
    } const rows[] = {{PP_IMPTYPE, words({9}), 4, {}, {"DEBUG CPGetProvParam not null value provided"}},
                      {PP_NAME, terminated(NAME), 33},
                      {PP_VERSION, words({0x100}), 4},
                      {PP_CONTAINER, terminated(TWO), 33, copying},
                      {PP_UNIQUE_CONTAINER, terminated(TWO), 33, copying},
                      {PP_PROVTYPE, words({PROV_RSA_FULL}), 4},
                      {PP_KEYSET_TYPE, words({CRYPT_USER_KEYSET}), 4}};
    for (const auto& row : rows) {
        const auto needed = static_cast<DWORD>(row.value.size());
        const auto ending = [](std::size_t length) {
            return Lines{"DEBUG CPGetProvParam out length : " + number(length), "DEBUG CPGetProvParam return success"};
        };
        for (const auto& [room, hasBuffer] :
             {std::pair<DWORD, bool>{needed - 1, true}, {0, true}, {0, false}, {200, false}}) {
            expectSuccess(get(row.param, room, 0, hasBuffer), head(row.param) + row.always + ending(needed));
            EXPECT_TRUE(isOnlyTold(needed));
        }
        for (const DWORD room : {needed, needed + 1}) {
            expectSuccess(get(row.param, room), head(row.param) + row.always + row.whenWritten + ending(row.reported));
            EXPECT_EQ(std::exchange(size, needed), row.reported);
            EXPECT_EQ(delivered(), row.value);
        }
        EXPECT_EQ(containerQueried, !row.always.empty() || row.param > PP_CONTAINER) << row.param;
    }
}

TEST_F(CspProviderParamTest, OthersTellAShortBufferByMoreData) {
    const Lines pinQuery = {"DEBUG CPGetProvParam: PIN query"}, isLarge = {"DEBUG Required size is Large"};
    struct {
        DWORD param, value;
        Lines always = {}, whenShort = {}, whenWritten = {}, calls = {};
    } const rows[] = {{PP_KEYSTORAGE, 9},
                      {PP_ADMIN_PIN, 1, pinQuery},
                      {PP_KEYEXCHANGE_PIN, 1, pinQuery},
                      {PP_SIGNATURE_PIN, 1, pinQuery},
                      {PP_USE_HARDWARE_RNG, 1, {}, isLarge, {"DEBUG CPGetProvParam: PP_USE_HARDWARE_RNG = 1"}},
                      {PP_ENUMEX_SIGNING_PROT, 1, {}, {}, {"DEBUG CPGetProvParam: PP_ENUMEX_SIGNING_PROT = 1"}},
                      {PP_KEYSPEC, AT_KEYEXCHANGE, {}, {}, {}, {KEY_LIST}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.param);
        for (const auto& [room, hasBuffer] :
             {std::pair<DWORD, bool>{0, true}, {1, true}, {3, true}, {0, false}, {200, false}})
            expectMoreData(get(row.param, room, 0, hasBuffer), 4, head(row.param) + row.always + row.whenShort,
                           row.calls);
        for (const DWORD room : {4u, 200u}) {
            expectSuccess(get(row.param, room), head(row.param) + row.always + row.whenWritten, row.calls);
            EXPECT_EQ(delivered(), words({row.value}));
        }
    }
}

TEST_F(CspProviderParamTest, KeySpecFollowsTheContainersKey) {
    for (const auto& [usage, spec] : {std::pair<std::uint32_t, DWORD>{0, 0}, {1, 2}, {2, 1}, {3, 2}, {4, 0}}) {
        attachTokens({scripted::keyPair(0x11, 3 - usage), scripted::keyPair(0x22, usage)});
        EXPECT_TRUE(get(PP_KEYSPEC, 4)());
        EXPECT_EQ(delivered(), words({spec})) << usage;
    }
    // The token's list changes between two calls.
    for (const std::vector<TalvikKeyPair>& keys : {std::vector<TalvikKeyPair>{}, {scripted::keyPair(0x11)}}) {
        attachTokens(keys);
        expectFailure(get(PP_KEYSPEC, 0, 0, false), NTE_NO_KEY,
                      head(PP_KEYSPEC) + ("ERROR CPGetProvParam PP_KEYSPEC: key not found for container=" + TWO),
                      {KEY_LIST});
    }
    for (const DWORD flags : {DWORD{0}, DWORD{CRYPT_VERIFYCONTEXT}}) {
        prov = acquire("", flags);
        expectSuccess(get(PP_KEYSPEC, 4),
                      head(PP_KEYSPEC) + "DEBUG CPGetProvParam PP_KEYSPEC: no container, returning supported specs");
        EXPECT_EQ(delivered(), words({3}));
    }
}

TEST_F(CspProviderParamTest, SecurityDescriptorLetsEveryoneIn) {
    const Lines lines = head(PP_KEYSET_SEC_DESCR) + "DEBUG CPGetProvParam: PP_KEYSET_SEC_DESCR";
    expectMoreData(get(PP_KEYSET_SEC_DESCR, 0, 0, false), 20, lines);
    expectMoreData(get(PP_KEYSET_SEC_DESCR, 19), 20, lines);
    expectSuccess(get(PP_KEYSET_SEC_DESCR, 20), lines);
    PACL acl = nullptr;
    BOOL isPresent = FALSE, isDefaulted = TRUE;
    EXPECT_TRUE(GetSecurityDescriptorDacl(data.data(), &isPresent, &acl, &isDefaulted));
    EXPECT_TRUE(isPresent && acl == nullptr && !isDefaulted);
    EXPECT_EQ(delivered().size(), 20u);
}

TEST_F(CspProviderParamTest, ContainersAreEnumeratedOneByOne) {
    const auto returned = [](const std::string& name) {
        return head(PP_ENUMCONTAINERS) + ("DEBUG CPGetProvParam: returned container -> " + name);
    };
    const std::string end = "ERROR CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=";
    for (int round = 0; round < 2; ++round) {
        expectSuccess(get(PP_ENUMCONTAINERS, 33, CRYPT_FIRST), returned(ONE));
        EXPECT_EQ(delivered(), terminated(ONE));
        expectSuccess(get(PP_ENUMCONTAINERS, 200, CRYPT_NEXT), returned(TWO));
        EXPECT_EQ(delivered(), terminated(TWO));
        for (const std::size_t index : {2u, 3u})
            expectFailure(get(PP_ENUMCONTAINERS, 33, CRYPT_NEXT), ERROR_NO_MORE_ITEMS,
                          head(PP_ENUMCONTAINERS) + (end + number(index)));
        expectMoreData(get(PP_ENUMCONTAINERS, 32, CRYPT_FIRST), 33, head(PP_ENUMCONTAINERS));
        // A size query moves on too.
        expectMoreData(get(PP_ENUMCONTAINERS, 200, CRYPT_NEXT, false), 33, head(PP_ENUMCONTAINERS));
        EXPECT_FALSE(get(PP_ENUMCONTAINERS, 33, CRYPT_NEXT)());
    }
    for (const DWORD flags : {0u, 3u, 4u, 8u, 0x80000001u})
        expectFailure(
            get(PP_ENUMCONTAINERS, 33, flags), ERROR_INVALID_PARAMETER,
            head(PP_ENUMCONTAINERS) + ("ERROR CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=" + number(flags)));
    attachTokens({});
    prov = acquire();
    expectFailure(get(PP_ENUMCONTAINERS, 33, CRYPT_FIRST), ERROR_NO_MORE_ITEMS, head(PP_ENUMCONTAINERS) + (end + "0"));
}

constexpr PROV_ENUMALGS_EX ALGORITHMS[] = {
    {0x6602, 128, 40, 128, 0, 3, "RC2", 23, "RSA Data Security's RC2"},
    {0x6801, 128, 40, 128, 0, 3, "RC4", 23, "RSA Data Security's RC4"},
    {0x6601, 56, 56, 56, 0, 3, "DES", 30, "Data Encryption Standard (DES)"},
    {0x6609, 112, 112, 112, 0, 12, "3DES TWO KEY", 18, "Two Key Triple DES"},
    {0x6603, 168, 168, 168, 0, 4, "3DES", 20, "Three Key Triple DES"},
    {0x8004, 160, 160, 160, 0x20, 5, "SHA-1", 29, "Secure Hash Algorithm (SHA-1)"},
    {0x800C, 256, 256, 256, 0x20, 7, "SHA-256", 35, "Secure Hash Algorithm 256 (SHA-256)"},
    {0x800D, 384, 384, 384, 0x20, 7, "SHA-384", 35, "Secure Hash Algorithm 384 (SHA-384)"},
    {0x800E, 512, 512, 512, 0x20, 7, "SHA-512", 35, "Secure Hash Algorithm 512 (SHA-512)"},
    {0x8008, 288, 288, 288, 0, 11, "SSL3 SHAMD5", 11, "SSL3 SHAMD5"},
    {0x8005, 0, 0, 0, 0, 3, "MAC", 27, "Message Authentication Code"},
    {0x2400, 2048, 1024, 4096, 0x30, 8, "RSA-Sign", 13, "RSA Signature"},
    {0xA400, 2048, 1024, 4096, 0x30, 8, "RSA-KeyX", 16, "RSA Key Exchange"},
    {0x8009, 0, 0, 0, 0, 4, "HMAC", 17, "Hugo's MAC (HMAC)"},
    {0x660E, 128, 128, 128, 0, 7, "AES-128", 36, "Advanced Encryption Standard 128-bit"},
    {0x660F, 192, 192, 192, 0, 7, "AES-192", 36, "Advanced Encryption Standard 192-bit"},
    {0x6610, 256, 256, 256, 0, 7, "AES-256", 36, "Advanced Encryption Standard 256-bit"}};

// The record in its short or its long form.
Bytes recordOf(const PROV_ENUMALGS_EX& algorithm, bool isLong) {
    const auto bytesAt = [](const auto* field, std::size_t length) {
        return content(reinterpret_cast<const unsigned char*>(field), length);
    };
    return isLong ? bytesAt(&algorithm, sizeof algorithm)
                  : words({algorithm.aiAlgid, algorithm.dwDefaultLen, algorithm.dwNameLen}) +
                        bytesAt(algorithm.szName, sizeof algorithm.szName);
}

TEST_F(CspProviderParamTest, AlgorithmsAreEnumeratedInBothForms) {
    for (const bool isLong : {false, true}) {
        const DWORD param = isLong ? PP_ENUMALGS_EX : PP_ENUMALGS, needed = isLong ? 88 : 32;
        const std::string entry = isLong ? "CPGetProvParam PP_ENUMALGS_EX: " : "CPGetProvParam PP_ENUMALGS: ";
        const Lines start =
            head(param) + (isLong ? "DEBUG CPGetProvParam: PP_ENUMALGS_EX" : "DEBUG CPGetProvParam: PP_ENUMALGS");
        // 0 goes on too, and the other cursor is the same.
        const DWORD nexts[] = {CRYPT_NEXT, 0, CRYPT_NEXT | 4, 4};
        DWORD flags = CRYPT_FIRST | 4;
        std::size_t index = 0;
        for (const auto& algorithm : ALGORITHMS) {
            expectSuccess(get(param, needed + index % 2, flags),
                          start + (std::string("DEBUG CPGetProvParam: returned ") + (isLong ? "EX " : "") +
                                   "algorithm -> " + algorithm.szName));
            EXPECT_EQ(delivered(), recordOf(algorithm, isLong)) << algorithm.szName;
            flags = nexts[index++ % 4];
        }
        for (const std::size_t past : {17u, 18u})
            expectFailure(get(param, 200, CRYPT_NEXT), ERROR_NO_MORE_ITEMS,
                          start + ("ERROR " + entry + "no more algorithms, index=" + number(past)));
        for (const DWORD wrong : {3u, 8u, 9u, 0x80000002u})
            expectFailure(get(param, 200, wrong | 4), ERROR_INVALID_PARAMETER,
                          start + ("ERROR " + entry + "invalid dwFlags=" + number(wrong)));
        // Size queries and short buffers take a row each.
        expectMoreData(get(param, 0, CRYPT_FIRST, false), needed, start);
        for (const DWORD room : {DWORD{0}, needed - 1}) {
            expectFailure(get(param, room, CRYPT_NEXT), ERROR_MORE_DATA,
                          start + ("ERROR " + entry + "output buffer too small, required=" + number(needed)));
            EXPECT_TRUE(isOnlyTold(needed));
        }
        EXPECT_TRUE(get(isLong ? PP_ENUMALGS : PP_ENUMALGS_EX, 200, CRYPT_NEXT)());
        EXPECT_EQ(delivered(), recordOf(ALGORITHMS[3], !isLong));
    }
}

TEST_F(CspProviderParamTest, ChainsAreFoundByThePublicKey) {
    const TalvikKeyPair one = scripted::keyPair(0x11), two = scripted::keyPair(0x22);
    const Bytes modulusOne = content(one.modulus, 256), modulusTwo = content(two.modulus, 256);
    const Lines lists = {KEY_LIST, CERTIFICATE_LIST};
    const Lines calls = lists + Lines{"talvik_getCertificateDetails(01, 1, out, null)",
                                      "talvik_getCertificateDetails(02, 1, out, null)"};
    const std::string missing = "ERROR CPGetProvParam PP_CERTCHAIN: container not found, containerName=" + TWO;
    const auto match = [](const std::string& name) {
        return Lines{"DEBUG Public key match found; container=" + name, "DEBUG [ERROR] Cannot parse leaf cert"};
    };
    const auto readAs = [](const scripted::Outcome& first, const scripted::Outcome& second) {
        scripted::next("talvik_getCertificateDetails", first);
        scripted::next("talvik_getCertificateDetails", second);
    };
    attachToken({});
    expectFailure(get(PP_CERTCHAIN, 200), NTE_NO_KEY, head(9) + missing, lists);
    attachToken({one, two}, {scripted::certificateOf(one, {1}), scripted::certificateOf(one, {2})});
    readAs({5, modulusTwo}, {.output = modulusOne});
    expectFailure(get(PP_CERTCHAIN, 200), NTE_NO_KEY, head(9) + match(ONE) + missing, calls);
    // All of the modulus counts.
    Bytes almost = modulusTwo;
    almost.back() ^= 1;
    for (const Bytes& other : {almost, cut(almost, 255)}) {
        readAs({.output = other}, {.output = Bytes{}});
        expectFailure(get(PP_CERTCHAIN, 200), NTE_NO_KEY, head(9) + missing, calls);
    }
    readAs({.output = almost}, {.output = modulusTwo});
    expectFailure(get(PP_CERTCHAIN, 200), NTE_BAD_KEY, head(9) + match(TWO) + "ERROR Failed creating leaf certificate",
                  calls);
    EXPECT_EQ(size, 200u);
}

TEST_F(CspProviderParamTest, Refusals) {
    const std::string noContext = ": context is null or not initialized";
    const auto refused = [](HCRYPTPROV context, DWORD param) {
        return [=] { return CPGetProvParam(context, param, nullptr, nullptr, 0); };
    };
    // Here the context comes before the entry's own line.
    for (const HCRYPTPROV context : {HCRYPTPROV{0}, invalid}) {
        expectFailure(refused(context, PP_NAME), NTE_BAD_UID, {"ERROR CPGetProvParam" + noContext});
        expectFailure([&] { return CPSetProvParam(context, 33, nullptr, 0); }, NTE_BAD_UID,
                      {"ERROR CPSetProvParam" + noContext});
    }
    for (const DWORD param : {0u, 7u, 10u, 15u, 18u, 21u, 23u, 26u, 28u, 30u, 34u, 35u, 37u, 41u, 0xFFFFFFFFu}) {
        expectFailure(get(param, 200, CRYPT_FIRST), NTE_BAD_TYPE,
                      head(param) + ("ERROR CPGetProvParam: unsupported dwParam=" + number(param)));
        EXPECT_TRUE(isOnlyTold(200));
        expectError(refused(prov, param), NTE_BAD_TYPE, "ERROR CPGetProvParam: unsupported dwParam=" + number(param));
    }
    for (const DWORD param : {0u, 2u, 31u, 34u, 37u, 39u, 0xFFFFFFFFu})
        expectFailure(set(param, "1234"), NTE_BAD_TYPE,
                      setHead(param) + ("ERROR CPSetProvParam: unsupported dwParam=" + number(param)));
    // A missing length is refused where it would be used, and never written through.
    for (const DWORD param : {PP_NAME, PP_KEYSPEC, PP_ENUMALGS, PP_KEYSET_SEC_DESCR, PP_USE_HARDWARE_RNG})
        expectError(refused(prov, param), ERROR_INVALID_PARAMETER, "ERROR CPGetProvParam: pcbDataLen is null");
    expectError(refused(prov, PP_ENUMCONTAINERS), ERROR_INVALID_PARAMETER,
                "ERROR CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=0");
    expectError(refused(prov, PP_CERTCHAIN), NTE_NO_KEY,
                "ERROR CPGetProvParam PP_CERTCHAIN: container not found, containerName=" + TWO);
}

TEST_F(CspProviderParamTest, ThePinIsValidatedAndKept) {
    const std::string longPin(300, '7');
    for (const DWORD param : {PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN}) {
        clearDevicePassword(DEVICE);
        for (const std::string& pin : {std::string("1234"), std::string(), longPin, std::string("5678")}) {
            const Lines calls = {validation(pin)};
            const Lines lines = setHead(param) + ("DEBUG CPSetProvParam - passwordLength : " + number(pin.size()));
            const std::string before = getDevicePassword(DEVICE).c_str();
            scripted::next("talvik_validatePassword", {.status = 5, .length = 2});
            expectFailure(set(param, pin.c_str()), NTE_KEYSET_ENTRY_BAD,
                          lines + "ERROR CPSetProvParam - Token password validation failed : 5", calls);
            EXPECT_EQ(getDevicePassword(DEVICE).c_str(), before);
            expectSuccess(set(param, pin.c_str()), lines, calls);
            EXPECT_EQ(getDevicePassword(DEVICE).c_str(), pin);
        }
        expectFailure(set(param, nullptr), ERROR_INVALID_PARAMETER,
                      setHead(param) + "ERROR CPSetProvParam: NULL PIN data");
    }
    EXPECT_THAT(robot.finish(), IsEmpty());
}

TEST_F(CspProviderParamTest, WindowAndRandomSource) {
    const std::uint64_t window = 0x1122334455667788;
    expectSuccess(set(PP_CLIENT_HWND, &window), setHead(1));
    expectSuccess(set(PP_CLIENT_HWND, nullptr), setHead(1));
    for (const auto& [given, kept] : {std::pair<DWORD, DWORD>{5, 1}, {0, 0}, {0x80000000, 1}}) {
        expectSuccess(set(PP_USE_HARDWARE_RNG, &given),
                      setHead(38) + ("DEBUG CPSetProvParam: PP_USE_HARDWARE_RNG set to " + number(kept)));
        EXPECT_TRUE(get(PP_USE_HARDWARE_RNG, 4)());
        EXPECT_EQ(delivered(), words({kept}));
    }
    expectFailure(set(PP_USE_HARDWARE_RNG, nullptr), ERROR_INVALID_PARAMETER,
                  setHead(38) + "ERROR CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
}

TEST_F(CspProviderParamTest, RandomBytesComeFromTheChosenSource) {
    const auto draw = [&](DWORD length) {
        return [=, this] {
            offer(length);
            return CPGenRandom(prov, length, data.data());
        };
    };
    struct {
        DWORD contextFlags, hardware;
        std::string device, source, lineBefore, failed;
    } const rows[] = {{0, 1, "T1", "false", "", "Random number generation failed: "},
                      {0, 0, "T1", "true", "", "Random number generation failed: "},
                      {CRYPT_VERIFYCONTEXT, 1, "", "true", "DEBUG CPGenRandom: no token, using software RNG",
                       "CPGenRandom: software RNG failed: "}};
    for (const auto& row : rows) {
        prov = acquire("", row.contextFlags);
        EXPECT_TRUE(set(PP_USE_HARDWARE_RNG, &row.hardware)());
        const Lines lines = row.lineBefore.empty() ? Lines{} : Lines{row.lineBefore};
        const Lines calls = {"talvik_generateRamdomNumber(\"" + row.device + "\", 7, out, " + row.source + ", null)"};
        scripted::next("talvik_generateRamdomNumber", {.output = bytes(7)});
        expectSuccess(draw(7), lines, calls);
        EXPECT_EQ(delivered(), bytes(7));
        scripted::next("talvik_generateRamdomNumber", {.status = 3});
        expectFailure(draw(7), NTE_PROVIDER_DLL_FAIL, lines + ("ERROR " + row.failed + "3"), calls);
    }
    for (const HCRYPTPROV context : {HCRYPTPROV{0}, invalid})
        expectFailure([&] { return CPGenRandom(context, 0, nullptr); }, NTE_BAD_UID,
                      {"ERROR CPGenRandom: context is null or not initialized"});
    const std::string noRoom = "ERROR CPGenRandom: invalid buffer or length, cbLen=";
    expectFailure(draw(0), ERROR_INVALID_PARAMETER, {noRoom + "0"});
    expectFailure([&] { return CPGenRandom(prov, 7, nullptr); }, ERROR_INVALID_PARAMETER, {noRoom + "7"});
}

TEST_F(CspProviderParamTest, DerivedAndHashedSessionKeysAreNotSupported) {
    HCRYPTKEY derived = UNTOUCHED_HANDLE;
    refusalsOf("CPDeriveKey", CPDeriveKey)(NTE_NOT_SUPPORTED, "CPDeriveKey: not supported", prov, CALG_AES_128, 5, 6,
                                           &derived);
    EXPECT_EQ(derived, UNTOUCHED_HANDLE);
    refusalsOf("CPHashSessionKey", CPHashSessionKey)(
        ERROR_CALL_NOT_IMPLEMENTED, "CPHashSessionKey: not supported, hHash=5 hKey=6 dwFlags=7", prov, 5, 6, 7);
}

}  // namespace
