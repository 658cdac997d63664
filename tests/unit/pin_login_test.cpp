#include "token/pin_login.h"

#include <semaphore>
#include <thread>

#include "module.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class PinLogin : public ProviderTest {
  protected:
    PinLogin() {
        state = [] {
            return (isPasswordValidated(DEVICE) ? "validated " : "none") +
                   std::string(getDevicePassword(DEVICE).c_str());
        };
    }
    // The window changes the last error; an entry point puts it back, except where it fails and tells its own by it.
    static BOOL ensure() {
        const DWORD before = GetLastError();
        const bool succeeded = ensurePasswordValidated(DEVICE, nullptr);
        if (succeeded)
            SetLastError(before);
        return succeeded;
    }
    static BOOL ensureKsp() {
        const DWORD before = GetLastError();
        const bool succeeded = ensureKspPasswordValidated(DEVICE, nullptr, nullptr);
        SetLastError(before);
        return succeeded;
    }
    static constexpr BOOL (*faces[])() = {ensure, ensureKsp};
};

TEST_F(PinLogin, AnAcceptedPinIsRememberedForBothFaces) {
    for (const auto& login : faces) {
        forgetEverything();
        robot.enters("987654");
        show("asked", login);
        EXPECT_TRUE(ensure() && ensureKsp() && canProceedSilently(DEVICE, nullptr));
        EXPECT_THAT(scripted::takeCalls(), IsEmpty());
    }
}

// By another thread, after this one has looked: nothing is asked, and nothing forgotten.
TEST_F(PinLogin, APinValidatedMeanwhileSavesTheQuestion) {
    scripted::before("talvik_getTokenInfo", [] { setDevicePassword(DEVICE, "1234"); });
    for (const bool loggedIn : {false, true}) {
        attachTokens({}, loggedIn);
        for (const auto& login : faces) {
            forgetEverything();
            show(loggedIn ? "single sign-on" : "no sign-on", login);
        }
    }
}

TEST_F(PinLogin, ASignOnThatExpiresCostsOnlyThePinThatWasUsed) {
    setDevicePassword(DEVICE, "1234");
    int calls = 0;
    const auto operation = [&](const char*) {
        if (++calls > 1)
            return 0;
        setDevicePassword(DEVICE, "1234");  // validated anew by another thread that was told the same before
        return 49;
    };
    SHOW(withSignOnRetry(DEVICE, "expired", operation, ensure) == 0);
    EXPECT_EQ(calls, 2);
}

// Only a token that answers and reports both the login and the sign-on counts as logged in.
TEST_F(PinLogin, SingleSignOnTakesAllThreeFields) {
    struct {
        const char* tokenId;
        int login, sso;
        bool loggedIn;
    } const rows[] = {{"one", 1, 1, true},  {"", 1, 1, false},    {"one", 1, 0, false}, {"one", 0, 1, false},
                      {"one", 2, 1, false}, {"one", 1, 2, false}, {"one", -1, 1, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.tokenId + number(row.login) + number(row.sso));
        scripted::Token token{scripted::tokenInfo(row.tokenId), {}, {}, {}};
        token.info.loginState = row.login;
        token.info.ssoState = row.sso;
        scripted::attach({{DEVICE, token}});
        forgetEverything();
        EXPECT_EQ(canProceedSilently(DEVICE, nullptr), row.loggedIn);
        EXPECT_FALSE(isPasswordValidated(DEVICE));
        if (row.loggedIn) {
            for (const auto& login : {ensure, ensure, ensureKsp})  // asked of the token anew each time
                show("logged in", login);
        } else {
            robot.cancels().cancels();
            EXPECT_FALSE(ensure() || ensureKsp());
        }
    }
}

TEST_F(PinLogin, GivingUpFailsWithoutAskingTheToken) {
    for (const auto& login : faces)
        for (const auto giveUp : {&PinDialog::cancel, &PinDialog::close})
            for (const char* const typed : {"", "1234"}) {
                setDevicePassword(DEVICE, "");  // forgotten by a login that fails
                EXPECT_FALSE(canProceedSilently(DEVICE, nullptr));
                robot.does([=](const PinDialog& dialog) {
                    dialog.type(typed);
                    (dialog.*giveUp)();
                });
                show("given up", login);
            }
}

TEST_F(PinLogin, RefusalsAreToldUntilTheTokenAccepts) {
    scripted::next("talvik_validatePassword", {.status = 5, .length = 2});
    scripted::next("talvik_validatePassword", {.status = 48, .length = 1});
    scripted::next("talvik_validatePassword", {.status = 1, .length = -2});
    robot.enters("wrong1").enters("wrong2").enters("wrong3").enters("right");
    SHOW(ensure());
}

// A refusal with no attempt left ends the login whatever its status; the count is 0 unless the token reports another.
TEST_F(PinLogin, ALockedPinEndsTheLogin) {
    for (const auto& login : faces)
        for (const scripted::Outcome& refusal :
             {scripted::Outcome{.status = 5}, {.status = -1, .length = 0}, {.status = 48, .length = 0}}) {
            scripted::next("talvik_validatePassword", refusal);
            robot.enters("wrong");
            show("refused with " + number(refusal.status), login);
        }
}

TEST_F(PinLogin, LoginIsEnabledFrom4To63Characters) {
    robot.does([](const PinDialog& dialog) {
        EXPECT_FALSE(dialog.loginEnabled()) << "at first";
        for (int length = 0; length <= 300; length += length < 66 ? 1 : 39) {
            dialog.type(std::string(length, 'x'));
            EXPECT_EQ(dialog.loginEnabled(), length >= 4 && length <= 63) << length;
        }
        dialog.type("1234");
        dialog.type("123");
        EXPECT_FALSE(dialog.loginEnabled());
        dialog.cancel();
    });
    EXPECT_FALSE(ensure());
}

TEST_F(PinLogin, PinsOfAllLengthsArriveAsTyped) {
    for (const int length : {4, 5, 15, 16, 31, 63}) {
        forgetEverything();
        std::string pin(static_cast<std::size_t>(length), '0');
        pin.front() = ' ';
        pin.back() = '"';
        robot.enters(pin);
        EXPECT_TRUE(ensure());
        EXPECT_EQ(scripted::takeCalls().back(), "talvik_validatePassword(\"T1\", \"" + pin + "\", 1, 0, null)");
        EXPECT_STREQ(getDevicePassword(DEVICE).c_str(), pin.c_str());
    }
}

TEST_F(PinLogin, TheDialogSaysWhatItWantsAndHidesThePin) {
    robot.does([](const PinDialog& dialog) {
        char text[64] = {};
        for (const auto& [button, label] : {std::pair{IDOK, "Login"}, {IDCANCEL, "Cancel"}}) {
            GetDlgItemTextA(dialog.window(), button, text, sizeof text);
            EXPECT_STREQ(text, label);
        }
        EXPECT_EQ(GetWindow(dialog.window(), GW_OWNER), nullptr);
        Lines texts;
        for (HWND child = GetWindow(dialog.window(), GW_CHILD); child; child = GetWindow(child, GW_HWNDNEXT)) {
            GetWindowTextA(child, text, sizeof text);
            texts.push_back(text);
        }
        EXPECT_THAT(texts, IsSupersetOf({"Please enter user pin to verify,", "User Pin :"}));
        EXPECT_NE(GetWindowLongA(GetDlgItem(dialog.window(), 1001), GWL_STYLE) & ES_PASSWORD, 0);
        // A command of no control that it has ends the dialog, with nothing entered.
        dialog.type("1234");
        SendMessageA(dialog.window(), WM_COMMAND, MAKEWPARAM(77, 0), 0);
    });
    EXPECT_FALSE(ensure());
}

TEST_F(PinLogin, AnOwnerThatIsNoWindowCountsAsNone) {
    robot.enters("1234");
    EXPECT_TRUE(ensureKspPasswordValidated(DEVICE, nullptr, reinterpret_cast<HWND>(0xDEAD4)));
}

// Another thread asks. Its user answers only once a window of this thread has answered a message, and this thread's
// request to quit is kept for the application.
TEST_F(PinLogin, WhoWaitsForAQuestionServesItsMessages) {
    const HWND window = CreateWindowExA(0, "STATIC", "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    std::binary_semaphore isAsked(0);
    LRESULT served = 0;
    robot.does([&](const PinDialog& dialog) {
        isAsked.release();
        PostThreadMessageA(GetWindowThreadProcessId(window, nullptr), WM_QUIT, 7, 0);
        served = SendMessageTimeoutA(window, WM_NULL, 0, 0, SMTO_NORMAL, 4000, nullptr);
        dialog.type("1234");
        dialog.login();
    });
    std::jthread other([] { EXPECT_TRUE(ensureKsp()); });
    isAsked.acquire();
    EXPECT_TRUE(ensure());
    EXPECT_NE(served, 0);
    EXPECT_EQ(robot.seen(), Lines{"PIN"});
    MSG message{};
    EXPECT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE) && message.message == WM_QUIT && message.wParam == 7);
    DestroyWindow(window);
}

TEST_F(PinLogin, ADialogThatCannotBeMadeCountsAsCancelled) {
    recordModuleInstance(GetModuleHandleA("kernel32.dll"));
    SHOW(ensure());
    recordModuleInstance(GetModuleHandleA(nullptr));
}

}  // namespace
