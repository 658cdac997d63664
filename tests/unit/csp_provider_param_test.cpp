#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class CspProviderParamTest : public ProviderTest {
  protected:
    CspProviderParamTest() {
        attachTokens({scripted::keyPair(0x11, 1), scripted::keyPair(0x22, 2)});
        acquire(TWO);
        useHardwareRng = 1;
        state = [] {
            return std::string(containerQueried ? "container queried" : "") + (useHardwareRng ? " rng" : "");
        };
    }
    ~CspProviderParamTest() override { useHardwareRng = 1; }

    // Into a buffer of `room` bytes before canaries.
    BOOL get(DWORD param, DWORD room = 600, DWORD flags = 0) {
        offer(room);
        return CPGetProvParam(prov, param, data.data(), &size, flags);
    }
    BOOL query(DWORD param, DWORD flags = 0) { return CPGetProvParam(prov, param, nullptr, &size, flags); }
    BOOL set(DWORD param, const void* value) { return CPSetProvParam(prov, param, static_cast<const BYTE*>(value), 7); }
};

TEST_F(CspProviderParamTest, SomeAreWrittenWhenTheyFitAndSucceedWhenNotOthersTellAShortBufferByMoreData) {
    for (const auto& [param, needed] : {std::pair<DWORD, DWORD>{PP_IMPTYPE, 4},
                                        {PP_NAME, 34},
                                        {PP_VERSION, 4},
                                        {PP_CONTAINER, 33},
                                        {PP_UNIQUE_CONTAINER, 33},
                                        {PP_PROVTYPE, 4},
                                        {PP_KEYSET_TYPE, 4},
                                        {PP_KEYSTORAGE, 4},
                                        {PP_ADMIN_PIN, 4},
                                        {PP_KEYEXCHANGE_PIN, 4},
                                        {PP_SIGNATURE_PIN, 4},
                                        {PP_USE_HARDWARE_RNG, 4},
                                        {PP_ENUMEX_SIGNING_PROT, 4},
                                        {PP_KEYSPEC, 4},
                                        {PP_KEYSET_SEC_DESCR, 20}}) {
        containerQueried = false;
        show("size of " + number(param), [&, param = param] { return query(param); });
        for (const DWORD room : {DWORD{0}, needed - 1, needed + 1, needed}) {
            containerQueried = false;
            show(number(param) + " in " + number(room), [&, param = param] { return get(param, room); });
        }
    }
    PACL acl = nullptr;
    BOOL isPresent = FALSE, isDefaulted = TRUE;
    EXPECT_TRUE(GetSecurityDescriptorDacl(data.data(), &isPresent, &acl, &isDefaulted));
    EXPECT_TRUE(isPresent && acl == nullptr && !isDefaulted);  // everyone is let in
}

TEST_F(CspProviderParamTest, KeySpecFollowsTheContainersKey) {
    for (const std::uint32_t usage : {0, 1, 2, 3, 4}) {
        attachTokens({scripted::keyPair(0x11, 3 - usage), scripted::keyPair(0x22, usage)});
        show("usage " + number(usage), [&] { return get(PP_KEYSPEC); });
    }
    attachTokens({scripted::keyPair(0x11)});
    show("the key has gone", [&] { return query(PP_KEYSPEC); });
    attachTokens({});
    show("all have gone", [&] { return query(PP_KEYSPEC); });
    for (const DWORD flags : {DWORD{0}, DWORD{CRYPT_VERIFYCONTEXT}}) {
        acquire("", flags);
        show("no container", [&] { return get(PP_KEYSPEC); });
    }
}

TEST_F(CspProviderParamTest, ContainersAreEnumeratedOneByOne) {
    auto next = [&, step = 0](DWORD flags, DWORD room = 33) mutable {
        show("step " + number(++step) + ", flags " + number(flags),
             [&] { return get(PP_ENUMCONTAINERS, room, flags); });
    };
    for (int round = 0; round < 2; ++round) {
        for (const DWORD flags : {CRYPT_FIRST, CRYPT_NEXT, CRYPT_NEXT, CRYPT_NEXT})
            next(flags);
        next(CRYPT_FIRST, 32);
        show("a size query moves on too, round " + number(round), [&] { return query(PP_ENUMCONTAINERS, CRYPT_NEXT); });
        next(CRYPT_NEXT);
    }
    for (const DWORD flags : {0u, 3u, 4u, 8u, 0x80000001u})
        next(flags);
    attachTokens({});
    acquire();
    next(CRYPT_FIRST);
}

TEST_F(CspProviderParamTest, AlgorithmsAreEnumeratedInBothForms) {
    for (const DWORD param : {PP_ENUMALGS, PP_ENUMALGS_EX}) {
        const DWORD needed = param == PP_ENUMALGS ? 32 : 88;
        const auto next = [&](DWORD flags, DWORD room) {
            show("flags " + number(flags), [&] { return get(param, room, flags); });
        };
        next(CRYPT_FIRST | 4, needed);
        // 0 goes on too.
        for (int i = 0; i < 5; ++i)
            for (const DWORD flags : {DWORD{CRYPT_NEXT}, DWORD{0}, DWORD{CRYPT_NEXT | 4}, DWORD{4}})
                next(flags, needed + 1);
        for (const DWORD wrong : {3u, 8u, 9u, 0x80000002u})
            next(wrong | 4, 200);
        // Size queries and short buffers take a row each, and the other form's cursor is the same.
        show("size of the first", [&] { return query(param, CRYPT_FIRST); });
        next(CRYPT_NEXT, 0);
        next(CRYPT_NEXT, needed - 1);
        show("the other form", [&] { return get(param ^ PP_ENUMALGS ^ PP_ENUMALGS_EX, 200, CRYPT_NEXT); });
    }
}

TEST_F(CspProviderParamTest, ChainsAreFoundByThePublicKey) {
    const TalvikKeyPair one = scripted::keyPair(0x11), two = scripted::keyPair(0x22);
    const Bytes modulusOne = content(one.modulus, 256), modulusTwo = content(two.modulus, 256);
    const auto showChain = [&](const std::string& name, const scripted::Outcome& first,
                               const scripted::Outcome& second) {
        scripted::next("talvik_getCertificateDetails", first);
        scripted::next("talvik_getCertificateDetails", second);
        show(name, [&] { return get(PP_CERTCHAIN, 200); });
    };
    attachToken({});
    show("no certificate", [&] { return get(PP_CERTCHAIN, 200); });
    show("no length", [&] { return CPGetProvParam(prov, PP_CERTCHAIN, nullptr, nullptr, 0); });
    attachToken({one, two}, {scripted::certificateOf(one, {1}), scripted::certificateOf(one, {2})});
    showChain("another key's", {5, modulusTwo}, {.output = modulusOne});
    // All of the modulus counts.
    Bytes almost = modulusTwo;
    almost.back() ^= 1;
    showChain("almost", {.output = almost}, {.output = Bytes{}});
    showChain("almost", {.output = cut(almost, 255)}, {.output = Bytes{}});
    showChain("this key's, not to be parsed", {.output = almost}, {.output = modulusTwo});
}

TEST_F(CspProviderParamTest, Refusals) {
    // Here the context comes before the entry's own line.
    showNulls("CPGetProvParam", CPGetProvParam, prov, PP_NAME, data.data(), &size, 0);
    showNulls("CPSetProvParam", CPSetProvParam, prov, PP_SIGNATURE_PIN, data.data(), 0);
    showEach<DWORD>("CPGetProvParam", {7, 10, 15, 18, 21, 23, 26, 28, 30, 34, 35, 37, 41, 0xFFFFFFFF},
                    [&](DWORD param) { return get(param, 200, CRYPT_FIRST); });
    showEach<DWORD>("CPSetProvParam", {2, 31, 34, 37, 39, 0xFFFFFFFF}, [&](DWORD param) { return set(param, "1234"); });
    // A missing length is refused where it would be used, and never written through.
    showEach<DWORD>("no length",
                    {PP_NAME, PP_KEYSPEC, PP_ENUMALGS, PP_KEYSET_SEC_DESCR, PP_USE_HARDWARE_RNG, PP_ENUMCONTAINERS, 41},
                    [&](DWORD param) { return CPGetProvParam(prov, param, nullptr, nullptr, 0); });
}

TEST_F(CspProviderParamTest, ThePinIsValidatedAndKept) {
    state = [] { return "PIN " + recording::shortened(getDevicePassword(DEVICE).c_str()); };
    for (const DWORD param : {PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN}) {
        for (const int status : {0, 5})
            for (const std::string& pin :
                 {std::string("1234"), std::string(), std::string(300, '7'), std::string("56")}) {
                scripted::next("talvik_validatePassword", {.status = status, .length = 2});
                show("status " + number(status) + " for " + number(param) + " of " + number(pin.size()),
                     [&] { return set(param, pin.c_str()); });
            }
        show("none for " + number(param), [&] { return set(param, nullptr); });
    }
}

TEST_F(CspProviderParamTest, WindowAndRandomSource) {
    const std::uint64_t window = 0x1122334455667788;
    SHOW(set(PP_CLIENT_HWND, &window));
    SHOW(set(PP_CLIENT_HWND, nullptr));
    for (const DWORD given : {5u, 0u, 0x80000000u}) {
        show("hardware " + number(given), [&] { return set(PP_USE_HARDWARE_RNG, &given); });
        show("after " + number(given), [&] { return get(PP_USE_HARDWARE_RNG); });
    }
    SHOW(set(PP_USE_HARDWARE_RNG, nullptr));
}

TEST_F(CspProviderParamTest, RandomBytesComeFromTheChosenSource) {
    for (const auto& [name, flags, hardware] : {std::tuple<std::string, DWORD, DWORD>{"hardware", 0, 1},
                                                {"software", 0, 0},
                                                {"no token", CRYPT_VERIFYCONTEXT, 1}}) {
        acquire("", flags);
        EXPECT_TRUE(set(PP_USE_HARDWARE_RNG, &hardware));
        for (const int status : {0, 3}) {
            scripted::next("talvik_generateRamdomNumber", {status, bytes(7)});
            show(name + ", status " + number(status), [&] { return CPGenRandom(prov, 7, data.data()); });
        }
    }
    showNulls("CPGenRandom", CPGenRandom, prov, 7, data.data());
    HCRYPTKEY derived = UNTOUCHED_HANDLE;
    SHOW(CPDeriveKey(prov, CALG_AES_128, 5, 6, &derived));
    EXPECT_EQ(derived, UNTOUCHED_HANDLE);
    SHOW(CPHashSessionKey(prov, 5, 6, 7));
}

}  // namespace
