// What the tests of the provider's operations have in common: a clean process, tokens, and one way to say what a call
// answered, logged and asked of the token.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <climits>
#include <concepts>
#include <cstring>
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
#include "token/key_encoding.h"
#include "token/session.h"
#include "token/shared_state.h"

using scripted::Bytes;
using Lines = std::vector<std::string>;

inline constexpr char DEVICE[] = "T1";

// Two tokens that nobody is logged in to: "T1" with `keyPairs`, "T2" with none. Or "T1" alone.
void attachTokens(std::vector<TalvikKeyPair> keyPairs, bool loggedIn = false);
void attachToken(std::vector<TalvikKeyPair> keyPairs, std::vector<TalvikCertificate> certificates = {},
                 std::vector<TalvikSymmetricKey> aesKeys = {});

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
    void expectSuccess(const Call& call, const Lines& log, const Lines& deviceCalls = {},
                       Where where = Where::current());
    void expectFailure(const Call& call, ErrorCode error, const Lines& log, const Lines& deviceCalls = {},
                       Where where = Where::current());

    // Either of these, or TRUE with an error left behind.
    void expectOutcome(const Call& call, BOOL result, ErrorCode error, const Lines& log, const Lines& deviceCalls = {},
                       Where where = Where::current());

    // A failure, of which only the error and the last line count.
    void expectError(const Call& call, ErrorCode error, const std::string& lastLine, Where where = Where::current());

    // An entry point that refuses before it touches the token: its own DEBUG line comes first, one ERROR line last. To
    // be called with the error, the text and the arguments that are refused.
    template <class... Parameters>
    auto refusalsOf(const std::string& entryPoint, BOOL(WINAPI* function)(Parameters...)) {
        return [=, this](ErrorCode error, const std::string& text, Parameters... arguments) {
            expectRefusal(
                entryPoint, [=] { return function(arguments...); }, error, text);
        };
    }
    void expectRefusal(const std::string& entryPoint, const Call& call, ErrorCode error, const std::string& text);

    // What goes for every operation under the PIN "1234": when the single sign-on has expired it asks once more and no
    // more, and what the user gives up fails. `head`, `before` and `after` are the lines around the PIN check and the
    // device call; `failed` are those in the place of `after` when the token goes on saying 49.
    struct UnderPin {
        std::string entryPoint, operation;
        Call call;
        Lines head, before, after, failed;
        std::function<std::string(const std::string& pin)> deviceCall;
    };
    void expectRenewal(const UnderPin& of, Where where = Where::current());

    void forgetSoFar();

    // Where a call puts its answer: canaries in all of `data`, and the length that it is given and leaves behind.
    void offer(DWORD room);
    Bytes delivered() const;              // as long as `size` says; fails where a byte behind it was touched
    bool isOnlyTold(DWORD needed) const;  // the size, and nothing was written
    Bytes data;
    DWORD size = 0;

    LogReader log;
    DialogRobot robot;
    const HCRYPTPROV invalid = reinterpret_cast<HCRYPTPROV>(&invalidContext_);  // of a record that is not valid

  private:
    talvik::csp::CspContext invalidContext_;
    std::vector<HCRYPTPROV> acquired_;
};

inline constexpr DWORD UNTOUCHED_ERROR = 0x12345678;
inline constexpr DWORD UNTOUCHED = 0xCDCDCDCD;
inline constexpr HCRYPTHASH UNTOUCHED_HANDLE = 0xCDCDCDCDCDCD;

// What the PIN dialog logs when it is shown.
inline const Lines dialogShown = {"DEBUG Password dialog show window", "DEBUG Password dialog show window before",
                                  "DEBUG Password dialog show window after"};

// What many calls log, and what they ask of the token "T1".
inline constexpr char VALIDATED[] = "DEBUG PIN already validated -- no need to ask again";
inline constexpr char NOT_VALIDATED[] = "DEBUG Password not validated or empty -- ask for PIN";
inline constexpr char MONITOR[] = "DEBUG Monitor thread already running, not starting again.";
inline constexpr char INIT[] = "talvik_init(0, null, 2)";
inline constexpr char DEVICES[] = "talvik_getConnectedDeviceList(false, null)";
inline constexpr char KEY_LIST[] = "talvik_getKeyPairList(\"T1\", null)";
inline constexpr char TOKEN_INFO[] = "talvik_getTokenInfo(\"T1\", null)";
inline const std::string CERTIFICATE_LIST = "talvik_getCertificateList(\"T1\", null)";
inline const std::string AES_LIST = "talvik_getAesKeyList(\"T1\", null)";
std::string validation(const std::string& pin);
std::string storeAesCall(const Bytes& value, unsigned int type);  // under the PIN "1234"
std::string unwrapCall(const Bytes& keyId, bool storageFlag);     // of the bytes 1 to 5

// The names of the keys that are filled with 0x11 and 0x22.
inline const std::string ONE(32, '1'), TWO(32, '2');

Lines operator+(Lines left, const Lines& right);
Lines operator+(Lines left, const std::string& line);

// Only tested for null by the provider.
VTableProvStruc* someTable();

Bytes bytes(std::size_t count, unsigned char first = 1);  // first, first + 1, ...
std::string hex(const Bytes& value);                      // lower case, as in recorded calls
std::string upperHex(const Bytes& value);                 // as in the log
Bytes cut(const Bytes& value, std::size_t length);
Bytes filled(std::size_t count, unsigned char value);
Bytes operator+(Bytes left, const Bytes& right);
Bytes reversed(const Bytes& value);
Bytes words(std::initializer_list<std::uint32_t> values);  // little-endian
// A key of the token that may wrap others, with `fill` as its name and `idFill` as its identifier.
TalvikSymmetricKey wrappingKey(std::uint32_t type, unsigned char fill, unsigned char idFill, std::int32_t idLength = 3);

Bytes content(const unsigned char* field, std::size_t length);

template <std::integral Integer>
std::string number(Integer value) {
    return std::to_string(value);
}
std::string number(const void* pointer);
