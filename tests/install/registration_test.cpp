// DllRegisterServer and DllUnregisterServer over a bcrypt.dll that records and fails as scripted. Which bcrypt.dll that
// is depends on the folder that the program lies in: each test belongs to the one that its suite's name ends in.
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "support/log_reader.h"

extern "C" HRESULT WINAPI DllRegisterServer();
extern "C" HRESULT WINAPI DllUnregisterServer();

namespace {

using Lines = std::vector<std::string>;

const std::string name = "\"Talvik Cryptographic Provider CSP\"";
const std::string listEntry = " table=1 context=none interface=00010001 \"KEY_STORAGE\" " + name;
const std::string removeFromList = "BCryptRemoveContextFunctionProvider" + listEntry;
const std::string addToList = "BCryptAddContextFunctionProvider" + listEntry + " position=FFFFFFFF";
const std::string unregisterProvider = "BCryptUnregisterProvider " + name;
const std::string registerProvider = "BCryptRegisterProvider " + name +
                                     " flags=00000000 aliases=0 kernel=none image=\"TalvikCSP.dll\" interfaces=1"
                                     " interface=00010001 flags=00000001 functions=1 \"KEY_STORAGE\"";

const std::string registering = "DEBUG DllRegisterServer: Registering KSP via CNG API";
const Lines registered = {registering, "DEBUG DllRegisterServer: KSP registered successfully"};
const std::string unregistering = "DEBUG DllUnregisterServer: Unregistering KSP via CNG API";
const Lines unregistered = {unregistering, "DEBUG DllUnregisterServer: KSP unregistered successfully"};

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
    void TearDown() override {
        fail("");
        DllUnregisterServer();
    }

    static void fail(const std::string& what) { SetEnvironmentVariableA("TALVIK_BCRYPT_FAIL", what.c_str()); }

    Lines takeCalls() {
        Lines lines;
        std::ifstream file(calls_);
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        file.close();
        std::filesystem::remove(calls_);
        return lines;
    }

    using Operation = HRESULT(WINAPI*)();
    void expect(Operation operation, HRESULT result, const Lines& calls, const Lines& log, const std::string& left) {
        EXPECT_EQ(operation(), result);
        EXPECT_EQ(takeCalls(), calls);
        EXPECT_EQ(log_.take(), log);
        EXPECT_EQ(image(), left);
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
        expect(DllRegisterServer, S_OK, {removeFromList, unregisterProvider, registerProvider, addToList}, registered,
               "TalvikCSP.dll");
    }
    for (int time = 0; time < 2; ++time) {
        expect(DllUnregisterServer, S_OK, {removeFromList, unregisterProvider}, unregistered, "");
    }
}

TEST_F(Registration_whole, AnswersARefusalsStatusAndLogsIt) {
    const Lines begun = {removeFromList, unregisterProvider, registerProvider};
    const Lines complete = {removeFromList, unregisterProvider, registerProvider, addToList};
    const struct {
        std::string function;
        const char* status;
        HRESULT result;
        std::string decimal;
        const Lines& calls;
        const char* left;
    } refusals[] = {
        {"BCryptRegisterProvider", "C000000D", HRESULT(0xD000000D), "-1073741811", begun, ""},
        {"BCryptRegisterProvider", "00000103", HRESULT(0x10000103), "259", begun, ""},
        {"BCryptAddContextFunctionProvider", "C000000D", HRESULT(0xD000000D), "-1073741811", complete, "TalvikCSP.dll"},
    };
    for (const auto& refusal : refusals) {
        fail(refusal.function + "=" + refusal.status);
        expect(DllRegisterServer, refusal.result, refusal.calls,
               {registering, "ERROR " + refusal.function + " failed: 0x" + refusal.decimal}, refusal.left);
    }
}

TEST_F(Registration_whole, IgnoresWhatRemovalAnswers) {
    for (const char* failing : {"BCryptRemoveContextFunctionProvider=C0000022", "BCryptUnregisterProvider=C0000225"}) {
        fail(failing);
        expect(DllUnregisterServer, S_OK, {removeFromList, unregisterProvider}, unregistered, "");
    }
    EXPECT_EQ(DllRegisterServer(), S_OK);
}

using Registration_partial = Registration_whole;

TEST_F(Registration_partial, NeedsTheFunctionsButNotToRemove) {
    expect(DllRegisterServer, E_FAIL, {}, {registering, "ERROR Failed to find BCrypt registration functions"}, "");
    expect(DllUnregisterServer, S_OK, {unregisterProvider}, unregistered, "");
}

using Registration_none = Registration_whole;

TEST_F(Registration_none, FailsWithoutTheLibrary) {
    expect(DllRegisterServer, E_FAIL, {}, {registering, "ERROR Failed to load bcrypt.dll"}, "");
    expect(DllUnregisterServer, E_FAIL, {},
           {unregistering, "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"}, "");
}

}  // namespace
