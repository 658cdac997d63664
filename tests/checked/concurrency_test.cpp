// Many threads of one application on both faces at once, with handles of their own or one for all, while what they
// share changes under them: the session entries, the initialisation vector, the process-wide switches, the PIN, the
// token. There is little to expect of the results; the thread sanitizer is what watches.
#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "fuzz/provider_fuzz.h"
#include "module.h"
#include "stand_in/desktop.h"
#include "support/log_reader.h"
#include "support/scripted_library.h"
#include "token/device_monitor.h"
#include "token/pin_login.h"
#include "token/session.h"

namespace {

constexpr int ROUNDS = 200;
constexpr char NAME[] = "11111111111111111111111111111111";

void signs() {
    const HCRYPTPROV context = newContext(NAME, 0);
    HCRYPTHASH hash = 0;
    BYTE data[600] = {};
    DWORD size = sizeof data;
    EXPECT_TRUE(CPCreateHash(context, CALG_SHA_256, 0, 0, &hash));
    EXPECT_TRUE(CPHashData(context, hash, data, 100, 0));
    EXPECT_TRUE(CPSignHash(context, hash, AT_SIGNATURE, nullptr, 0, data, &size));
    EXPECT_EQ(size, 256u);
    EXPECT_TRUE(CPVerifySignature(context, hash, data, size, 0, nullptr, 0));
    EXPECT_TRUE(CPDestroyHash(context, hash));
    EXPECT_TRUE(CPReleaseContext(context, 0));
}

void usesKeyStorage() {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    BYTE data[600] = {};
    DWORD size = 0;
    EXPECT_EQ(KSPOpenProvider(&provider, L"", 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPOpenKey(provider, &key, std::wstring(NAME, NAME + 32).c_str(), 0, 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPSetKeyProperty(provider, key, L"IV", data, 16, 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPGetKeyProperty(provider, key, L"Name", data, sizeof data, &size, 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPSignHash(provider, key, nullptr, data, 32, data, sizeof data, &size, 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPDecrypt(provider, key, data, 256, nullptr, data, sizeof data, &size, 0), ERROR_SUCCESS);
    EXPECT_EQ(KSPFreeKey(provider, key), ERROR_SUCCESS);
    EXPECT_EQ(KSPFreeProvider(provider), ERROR_SUCCESS);
}

void generates() {
    const HCRYPTPROV context = newContext(NAME, 0);
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CPGenKey(context, CALG_RSA_SIGN, 0, &key));
    EXPECT_TRUE(CPDestroyKey(context, key));
    EXPECT_TRUE(CPReleaseContext(context, 0));
}

// Whatever an application could call, on handles of its own and in another order each time.
void callsAnything() {
    static std::atomic<unsigned> seed = 0;
    std::mt19937 random(++seed);
    std::array<std::uint8_t, 3000> choices;
    std::ranges::generate(choices, [&] { return static_cast<std::uint8_t>(random()); });
    Input input(choices.data(), choices.size());
    callInAnyOrder(input, [] {});
}

void forgets() {
    talvik::forgetDevicesExcept({});
    talvik::clearDevicePassword("T1");
}

class Concurrency : public testing::Test {
  protected:
    Concurrency() {
        setLogLevel(2);
        scripted::reset();
        talvik::forgetEverything();
        scripted::always("talvik_finalHash", {.output = scripted::Bytes(32, 1)});
        scripted::always("talvik_signHash", {.output = scripted::Bytes(256, 2)});
        scripted::always("talvik_decrypt", {.output = scripted::Bytes(32, 3)});
        scripted::always("talvik_encrypt_aes", {.output = scripted::Bytes(32, 4)});
        scripted::always("talvik_decryptSymetric", {.output = scripted::Bytes(16, 5)});
        scripted::generates(scripted::keyPair(0x11));
    }

    void attach(bool loggedIn) {
        scripted::attach({{"T1", {scripted::tokenInfo("one", loggedIn), {scripted::keyPair(0x11)}, {}, {}}}});
    }

    void allAtOnce(const std::vector<std::function<void()>>& stories) {
        std::vector<std::jthread> threads;
        for (const auto& story : stories)
            threads.emplace_back([&story] {
                for (int round = 0; round < ROUNDS; ++round)
                    story();
            });
    }
};

TEST_F(Concurrency, BothFacesUnderSingleSignOn) {
    attach(true);
    allAtOnce({signs, callsAnything, usesKeyStorage, callsAnything, generates, forgets});
}

TEST_F(Concurrency, ARememberedPinThatComesAndGoes) {
    attach(true);
    allAtOnce({signs, usesKeyStorage, callsAnything, [] {
                   talvik::setDevicePassword("T1", "12345678901234567890");
                   talvik::clearDevicePassword("T1");
               }});
}

// A person at each screen who knows the PINs; with nobody logged in. All that ask have looked at the token before the
// first of them goes on.
class Questions : public Concurrency, public desktop::User {
  protected:
    Questions() {
        attach(false);
        desktop::seat(this);
    }
    ~Questions() override { desktop::seat(nullptr); }

    void dialog(HWND window) override {
        const std::string entered = answer(++dialogs);
        waitForAnother();
        if (!entered.empty())
            desktop::type(window, entered);
        desktop::press(window, entered.empty() ? IDCANCEL : IDOK);
        answered();
        --open;
    }
    void message(const std::string&, const std::string&) override {}

    // Time for a second dialog to appear beside the first, where one would.
    void waitForAnother() {
        std::unique_lock guard(lock);
        mostOpen = std::max<int>(mostOpen, ++open);
        opened.notify_all();
        opened.wait_for(guard, patience, [&] { return open > 1; });
    }

    // One thread for each token; how many were told that the PIN is validated.
    int ask(const std::vector<std::string>& tokens) {
        std::barrier looked(static_cast<std::ptrdiff_t>(tokens.size()));
        scripted::before("talvik_getTokenInfo", [&] { looked.arrive_and_wait(); });
        std::atomic<int> validated = 0;
        {
            std::vector<std::jthread> threads;
            for (const std::string& token : tokens)
                threads.emplace_back([&] {
                    thisThreadsToken = token;
                    validated += talvik::ensurePasswordValidated(token, nullptr);
                });
        }
        scripted::before("talvik_getTokenInfo", {});
        return validated;
    }

    std::function<std::string(int)> answer;  // what is typed into the n-th dialog; nothing: it is cancelled
    std::function<void()> answered = [] {};  // after that, with the dialog still open
    std::atomic<int> dialogs{0}, open{0};
    int mostOpen = 0;
    std::chrono::milliseconds patience{100};
    std::mutex lock;
    std::condition_variable opened;
    static thread_local std::string thisThreadsToken;
};
thread_local std::string Questions::thisThreadsToken;

const std::vector<std::string> oneForAll(8, "T1");

TEST_F(Questions, OneServesAllThreadsOfAToken) {
    answer = [](int) { return "1234"; };
    EXPECT_EQ(ask(oneForAll), 8);
    EXPECT_EQ(std::pair(int{dialogs}, mostOpen), std::pair(1, 1));
    EXPECT_EQ(scripted::callCount("talvik_validatePassword"), 1);
}

TEST_F(Questions, AreAskedAnewAfterACancelledOne) {
    answer = [](int dialog) { return dialog < 4 ? "" : "1234"; };
    EXPECT_EQ(ask(oneForAll), 8 - 3);
    EXPECT_EQ(std::pair(int{dialogs}, mostOpen), std::pair(4, 1));
}

// Both are answered before either closes, so neither waits for the other.
TEST_F(Questions, OfTwoTokensKeepTheirAnswersApart) {
    std::barrier bothAreAnswered(2);
    answer = [](int) { return "PIN of " + thisThreadsToken; };
    answered = [&] { bothAreAnswered.arrive_and_wait(); };
    EXPECT_EQ(ask({"T1", "T2"}), 2);
    for (const std::string token : {"T1", "T2"})
        EXPECT_EQ(talvik::getDevicePassword(token).c_str(), "PIN of " + token);
}

// The sign-on has expired for all, and whoever is told so late finds the PIN that was entered for the others.
TEST_F(Questions, OneRenewsAnExpiredSignOnForAll) {
    std::barrier expired(8);
    answer = [](int) { return "1234"; };
    talvik::setDevicePassword("T1", "1234");
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&, tries = 0]() mutable {
                const auto operation = [&](const char*) {
                    if (tries++ == 0)
                        expired.arrive_and_wait();
                    return tries == 1 ? 49 : 0;
                };
                const auto ensureAgain = [] { return talvik::ensurePasswordValidated("T1", nullptr); };
                EXPECT_EQ(talvik::withSignOnRetry("T1", "expired", operation, ensureAgain), 0);
            });
    }
    EXPECT_EQ(dialogs, 1);
}

// Opening a key binds the provider to the key's token, while other threads are at work with it. Whatever it is bound to
// meanwhile, a call keeps to one token and to the PIN of that one. The identifiers are one that a string holds within
// itself and one that it does not.
struct SharedToken {
    std::string id, pin;
    TalvikKeyPair keyPair;
};
const SharedToken sharedTokens[] = {{"TALVIK-0001", "11111111", scripted::keyPair(0x11)},
                                    {"{5f0c1c1e-6a55-4a0b-9d41-3b7a0b5e8f22}", "22222222", scripted::keyPair(0x22)}};
thread_local const SharedToken* tokenOfCall;  // null until the call has asked something of one
thread_local bool looksForKey;                // on every token, as opening does

void keepsToOneToken(const std::string& call) {
    const std::size_t quote = call.find('"');
    if (quote == std::string::npos)
        return;
    const std::string id = call.substr(quote + 1, call.find('"', quote + 1) - quote - 1);
    const auto token = std::ranges::find(sharedTokens, id, &SharedToken::id);
    ASSERT_NE(token, std::end(sharedTokens)) << call;
    const SharedToken& other = sharedTokens[token == sharedTokens ? 1 : 0];
    EXPECT_EQ(call.find('"' + other.pin + '"'), std::string::npos) << call;
    EXPECT_TRUE(looksForKey || tokenOfCall == nullptr || tokenOfCall == token) << call;
    tokenOfCall = token;
}

TEST_F(Questions, OneProviderForTwoTokens) {
    answer = [](int) { return tokenOfCall->pin; };
    patience = {};
    std::vector<std::pair<std::string, scripted::Token>> attached;
    for (const auto& [id, pin, keyPair] : sharedTokens)
        attached.push_back({id, {scripted::tokenInfo(id), {keyPair}, {}, {}}});
    scripted::attach(attached);
    NCRYPT_PROV_HANDLE provider = 0;
    ASSERT_EQ(KSPOpenProvider(&provider, L"", 0), ERROR_SUCCESS);
    std::atomic<int> signatures = 0;
    scripted::before("talvik_signHash", [&] {
        if (++signatures % 3 == 0)
            scripted::next("talvik_signHash", {49});
    });
    scripted::watch(keepsToOneToken);

    const auto works = [&](const SharedToken& token) {
        return [&, name = scripted::containerName(token.keyPair)] {
            NCRYPT_KEY_HANDLE key = 0;
            BYTE data[600] = {};
            DWORD size = 0;
            looksForKey = true;
            EXPECT_EQ(KSPOpenKey(provider, &key, std::wstring(name.begin(), name.end()).c_str(), 0, 0), ERROR_SUCCESS);
            looksForKey = false;
            tokenOfCall = nullptr;
            KSPSignHash(provider, key, nullptr, data, 32, data, sizeof data, &size, NCRYPT_SILENT_FLAG);
            tokenOfCall = nullptr;
            KSPDecrypt(provider, key, data, 256, nullptr, data, sizeof data, &size, NCRYPT_SILENT_FLAG);
            EXPECT_EQ(KSPFreeKey(provider, key), ERROR_SUCCESS);
        };
    };
    const auto prompts = [&] {
        HWND window = nullptr;
        tokenOfCall = nullptr;
        EXPECT_EQ(KSPSetProviderProperty(provider, L"HWND Handle", reinterpret_cast<BYTE*>(&window), 8, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(KSPPromptUser(provider, 0, nullptr, 0), ERROR_SUCCESS);
        for (const SharedToken& token : sharedTokens)
            EXPECT_THAT(talvik::getDevicePassword(token.id).c_str(), testing::AnyOf(testing::StrEq(""), token.pin));
    };
    allAtOnce(
        {works(sharedTokens[0]), works(sharedTokens[1]), works(sharedTokens[0]), works(sharedTokens[1]), prompts});
    EXPECT_EQ(KSPFreeProvider(provider), ERROR_SUCCESS);
}

TEST_F(Concurrency, TheLevelChangesWhileLinesAreWritten) {
    attach(true);
    allAtOnce({signs, usesKeyStorage, [] {
                   for (const auto level : {std::optional<unsigned long>(3), std::optional<unsigned long>(0), {}})
                       setLogLevel(level);
               }});
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    talvik::recordModuleInstance(GetModuleHandleA(nullptr));  // the dialog's resource is the program's
    const int result = RUN_ALL_TESTS();
    talvik::stopDeviceMonitor();
    return result;
}
