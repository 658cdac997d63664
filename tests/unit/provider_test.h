// What the tests of the provider's operations have in common: a clean process, tokens, and one way to say what a call
// answered, logged and asked of the token.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <source_location>
#include <string>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "support/dialog_robot.h"
#include "support/log_reader.h"
#include "support/scripted_library.h"

using scripted::Bytes;
using Lines = std::vector<std::string>;

inline constexpr char DEVICE[] = "T1";

// Two tokens that nobody is logged in to: "T1" with `keyPairs`, "T2" with none.
void attachTokens(std::vector<TalvikKeyPair> keyPairs, bool loggedIn = false);

// A fresh process as far as one can be had: no session state, logLevel 3, an empty script with two tokens, a robot
// for the windows. The device monitor runs throughout, so that every acquisition logs the same.
class ProviderTest : public testing::Test {
  protected:
    ProviderTest();
    ~ProviderTest() override;

    // A context on the first token (or on none, with CRYPT_VERIFYCONTEXT), released at the end of the test. What its
    // acquisition logged and asked of the token is past.
    HCRYPTPROV acquire(const std::string& container = "", DWORD flags = 0);

    // Calls and checks the whole of what can be seen: result, last error (untouched by a success), log and device
    // calls.
    using Call = std::function<BOOL()>;
    using ErrorCode = std::int64_t;  // a DWORD; NTE_* constants are negative
    using Where = std::source_location;
    void expectSuccess(const Call& call, const Lines& log, const Lines& deviceCalls, Where where = Where::current());
    void expectFailure(const Call& call, ErrorCode error, const Lines& log, const Lines& deviceCalls,
                       Where where = Where::current());

    // An entry point that refuses before it touches the token: its own DEBUG line comes first, one ERROR line last.
    struct Refusal {
        Call call;
        ErrorCode error;
        std::string text;
    };
    void expectRefusals(const std::string& entryPoint, const std::vector<Refusal>& refusals,
                        Where where = Where::current());

    void forgetSoFar();

    LogReader log;
    DialogRobot robot;
    const HCRYPTPROV invalid = reinterpret_cast<HCRYPTPROV>(&invalidContext_);  // of a record that is not valid

  private:
    void expectOutcome(const Call& call, BOOL result, ErrorCode error, const Lines& log, const Lines& deviceCalls,
                       Where where);
    talvik::csp::CspContext invalidContext_;
    std::vector<HCRYPTPROV> acquired_;
};

inline constexpr DWORD UNTOUCHED_ERROR = 0x12345678;
inline constexpr DWORD UNTOUCHED = 0xCDCDCDCD;
inline constexpr HCRYPTHASH UNTOUCHED_HANDLE = 0xCDCDCDCDCDCD;

// What the PIN dialog logs when it is shown.
extern const Lines dialogShown;

Lines operator+(Lines left, const Lines& right);

// Only tested for null by the provider.
VTableProvStruc* someTable();

Bytes bytes(std::size_t count, unsigned char first = 1);  // first, first + 1, ...
std::string hex(const Bytes& value);                      // lower case, as in recorded calls
Bytes filled(std::size_t count, unsigned char value);
std::string number(const void* pointer);
std::string number(std::uintptr_t handle);
