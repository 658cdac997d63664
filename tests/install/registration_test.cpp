// DllRegisterServer and DllUnregisterServer over a bcrypt.dll that records and fails as scripted. Which bcrypt.dll that
// is depends on the folder that the program lies in: each test belongs to the one that its suite's name ends in.
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_reader.h"

extern "C" HRESULT WINAPI DllRegisterServer();
extern "C" HRESULT WINAPI DllUnregisterServer();

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Lines = std::vector<std::string>;

const std::string name = "\"Talvik Cryptographic Provider CSP\"";
const std::string listEntry = " table=1 context=none interface=00010001 \"KEY_STORAGE\" " + name;
const std::string removeFromList = "BCryptRemoveContextFunctionProvider" + listEntry;
const std::string addToList = "BCryptAddContextFunctionProvider" + listEntry + " position=FFFFFFFF";
const std::string unregisterProvider = "BCryptUnregisterProvider " + name;
const std::string registerProvider = "BCryptRegisterProvider " + name +
                                     " flags=00000000 aliases=0 kernel=none image=\"TalvikCSP.dll\" interfaces=1"
                                     " interface=00010001 flags=00000001 functions=1 \"KEY_STORAGE\"";

const Lines registered = {"DEBUG DllRegisterServer: Registering KSP via CNG API",
                          "DEBUG DllRegisterServer: KSP registered successfully"};
const Lines unregistered = {"DEBUG DllUnregisterServer: Unregistering KSP via CNG API",
                            "DEBUG DllUnregisterServer: KSP unregistered successfully"};

class Registration_whole : public ::testing::Test {
  protected:
    void SetUp() override {
        calls_ = useOwnTemporaryFolder() + "calls";
        SetEnvironmentVariableA("TALVIK_BCRYPT_CALLS", calls_.c_str());
        setLogLevel(3);
        fail("");
        DllUnregisterServer();
        std::filesystem::remove(calls_);
        log_.mark();
    }
    void TearDown() override { fail(""); }

    static void fail(const std::string& what) { SetEnvironmentVariableA("TALVIK_BCRYPT_FAIL", what.c_str()); }

    Lines takeCalls() {
        Lines lines;
        {
            std::ifstream file(calls_);
            for (std::string line; std::getline(file, line);) {
                lines.push_back(line);
            }
        }
        std::filesystem::remove(calls_);
        return lines;
    }

    // Empty when nothing is registered.
    static std::string image() {
        char text[64] = {};
        DWORD size = sizeof text;
        RegGetValueA(HKEY_LOCAL_MACHINE,
                     "SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Providers\\"
                     "Talvik Cryptographic Provider CSP\\UM",
                     "Image", RRF_RT_REG_SZ, nullptr, text, &size);
        return text;
    }

    std::string calls_;
    LogReader log_;
};

TEST_F(Registration_whole, CallsTheSystemInOrderAndTwice) {
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(DllRegisterServer(), S_OK);
        EXPECT_THAT(takeCalls(), ElementsAre(removeFromList, unregisterProvider, registerProvider, addToList));
        EXPECT_EQ(log_.take(), registered);
        EXPECT_EQ(image(), "TalvikCSP.dll");
    }
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(DllUnregisterServer(), S_OK);
        EXPECT_THAT(takeCalls(), ElementsAre(removeFromList, unregisterProvider));
        EXPECT_EQ(log_.take(), unregistered);
        EXPECT_EQ(image(), "");
    }
}

struct Refusal {
    std::string function;
    const char* status;
    HRESULT result;
    std::string decimal;
    std::size_t calls;
    const char* left;  // the image that stays registered
};

class Refused_whole : public Registration_whole, public ::testing::WithParamInterface<Refusal> {};

TEST_P(Refused_whole, AnswersTheStatusAndLogsIt) {
    const Refusal& refusal = GetParam();
    fail(refusal.function + "=" + refusal.status);
    EXPECT_EQ(DllRegisterServer(), refusal.result);
    EXPECT_THAT(log_.take(), ElementsAre(registered[0], "ERROR " + refusal.function + " failed: 0x" + refusal.decimal));
    EXPECT_EQ(takeCalls().size(), refusal.calls);
    EXPECT_EQ(image(), refusal.left);
}

INSTANTIATE_TEST_SUITE_P(
    Registration, Refused_whole,
    ::testing::Values(Refusal{"BCryptRegisterProvider", "C000000D", HRESULT(0xD000000D), "-1073741811", 3, ""},
                      Refusal{"BCryptRegisterProvider", "00000103", HRESULT(0x10000103), "259", 3, ""},
                      Refusal{"BCryptAddContextFunctionProvider", "C000000D", HRESULT(0xD000000D), "-1073741811", 4,
                              "TalvikCSP.dll"}));

TEST_F(Registration_whole, IgnoresWhatRemovalAnswers) {
    for (const char* failing : {"BCryptRemoveContextFunctionProvider=C0000022", "BCryptUnregisterProvider=C0000225"}) {
        fail(failing);
        EXPECT_EQ(DllUnregisterServer(), S_OK) << failing;
        EXPECT_EQ(log_.take(), unregistered);
        EXPECT_THAT(takeCalls(), ElementsAre(removeFromList, unregisterProvider));
    }
    EXPECT_EQ(DllRegisterServer(), S_OK);
}

using Registration_partial = Registration_whole;

TEST_F(Registration_partial, NeedsTheFunctionsButNotToRemove) {
    EXPECT_EQ(DllRegisterServer(), E_FAIL);
    EXPECT_THAT(log_.take(), ElementsAre(registered[0], "ERROR Failed to find BCrypt registration functions"));
    EXPECT_THAT(takeCalls(), IsEmpty());

    EXPECT_EQ(DllUnregisterServer(), S_OK);
    EXPECT_EQ(log_.take(), unregistered);
    EXPECT_THAT(takeCalls(), ElementsAre(unregisterProvider));
}

using Registration_none = Registration_whole;

TEST_F(Registration_none, FailsWithoutTheLibrary) {
    EXPECT_EQ(DllRegisterServer(), E_FAIL);
    EXPECT_THAT(log_.take(), ElementsAre(registered[0], "ERROR Failed to load bcrypt.dll"));
    EXPECT_EQ(DllUnregisterServer(), E_FAIL);
    EXPECT_THAT(log_.take(),
                ElementsAre(unregistered[0], "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"));
}

}  // namespace
