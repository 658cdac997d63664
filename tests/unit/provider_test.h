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
#include <map>
#include <source_location>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/hash.h"
#include "csp/key.h"
#include "support/dialog_robot.h"
#include "support/log_reader.h"
#include "support/scripted_library.h"
#include "token/key_encoding.h"
#include "token/session.h"
#include "token/shared_state.h"
#include "unit/recording.h"

using scripted::Bytes;
using Lines = std::vector<std::string>;

inline constexpr char DEVICE[] = "T1";

// Two tokens that nobody is logged in to: "T1" with `keyPairs`, "T2" with none. Or "T1" alone.
void attachTokens(std::vector<TalvikKeyPair> keyPairs, bool loggedIn = false);
void attachToken(std::vector<TalvikKeyPair> keyPairs, std::vector<TalvikCertificate> certificates = {},
                 std::vector<TalvikSymmetricKey> aesKeys = {});

template <std::integral Integer>
std::string number(Integer value) {
    return std::to_string(value);
}
std::string number(const void* pointer);

// The call under its own text.
#define SHOW(...) show(#__VA_ARGS__, [&] { return __VA_ARGS__; })

// A fresh process as far as one can be had: no session state, logLevel 3, an empty script with two tokens, a robot
// for the windows. The device monitor runs throughout, so that every acquisition logs the same.
class ProviderTest : public testing::Test {
  protected:
    using Where = std::source_location;
    ProviderTest();
    void TearDown() override;

    // A context on the first token (or on none, with CRYPT_VERIFYCONTEXT), released at the end of the test. What its
    // acquisition logged and asked of the token is past.
    HCRYPTPROV acquire(const std::string& container = "", DWORD flags = 0);

    // Makes a call and takes down all that it does: result, last error, `size` and `data` (offered afresh), the handles
    // that it changes, `state` where that changes, windows, log, device calls. SHOW(CPHashData(...)) is short for
    // one that goes by its own text.
    using Shown = std::function<long()>;
    void show(const std::string& name, const Shown& call, Where where = Where::current());
    std::function<std::string()> state;

    // The call with each of the values.
    template <class Value>
    void showEach(const std::string& name, std::initializer_list<Value> values, const std::function<long(Value)>& call,
                  Where where = Where::current()) {
        for (const Value value : values)
            show(
                name + ' ' + number(value), [&] { return call(value); }, where);
    }

    // The call with every argument null or zero in its turn: alone and with all that follow. And with a first handle
    // whose record is not valid.
    template <class Result, class Handle, class... Parameters>
    void showNulls(const std::string& name, Result(WINAPI* function)(Handle, Parameters...),
                   std::type_identity_t<Handle> handle, std::type_identity_t<Parameters>... others) {
        const std::tuple<Handle, Parameters...> arguments(handle, others...);
        const auto with = [&](const std::string& variant, const auto& changed) {
            show(name + " without " + variant, [&] { return std::apply(function, changed); });
        };
        if constexpr (std::is_same_v<Handle, ULONG_PTR>)
            with("valid-1", std::tuple<Handle, Parameters...>(invalid, others...));
        [&]<std::size_t... At>(std::index_sequence<At...>) {
            (withNull<At>(arguments, with), ...);
        }
        (std::index_sequence_for<Handle, Parameters...>());
    }

    // The operation of the library fails with a status, reports a negative length and ones that are too long.
    void showLies(const std::string& operation, const Shown& call, std::initializer_list<int> tooLong = {INT_MAX},
                  Where where = Where::current());

    // What goes for every operation under the PIN "1234": it answers 49 and the PIN is asked for and accepted; 49
    // twice; 49 and the user gives up; the user gives up at once.
    void showRenewal(const std::string& operation, const Shown& call, Where where = Where::current());

    // A place for handles. It goes by this name in the record, and each handle that is put there, by a recorded call or
    // before one, is released at the end of the test.
    void own(const std::string& name, ULONG_PTR& place, std::function<long(ULONG_PTR)> release);
    void keep(ULONG_PTR handle, std::function<long(ULONG_PTR)> release);  // until these have gone
    void takeOver();  // to be called before a place is used again without a recorded call
    void ownHash(const std::string& name, HCRYPTHASH& place);
    void ownKey(const std::string& name, HCRYPTKEY& place);

    void forgetSoFar();

    // Where a call puts its answer: canaries in all of `data`, and the length that it is given and leaves behind.
    void offer(DWORD room);
    Bytes delivered() const;              // as long as `size` says; fails where a byte behind it was touched
    bool isOnlyTold(DWORD needed) const;  // the size, and nothing was written
    Bytes data;
    DWORD size = 0;

    LogReader log;
    DialogRobot robot;
    ULONG_PTR invalid = reinterpret_cast<ULONG_PTR>(&invalidContext_);  // of a record that is not valid
    HCRYPTPROV prov = 0;                                                // acquired last
    DWORD room = 600;                                                   // what is offered

    virtual std::string textOf(long result) const;  // and what belongs to it

  private:
    struct Place {
        std::string name;
        ULONG_PTR* handle;
        std::function<long(ULONG_PTR)> release;
    };

    std::string written() const;
    std::string windows();
    std::string logAndCalls() const;
    template <std::size_t At>
    static void withNull(auto arguments, const auto& with) {
        if (std::get<At>(arguments) == std::tuple_element_t<At, decltype(arguments)>{})
            return;
        auto after = arguments;
        std::get<At>(arguments) = {};
        with(number(At + 1), arguments);
        [&]<std::size_t... Next>(std::index_sequence<Next...>) {
            ((std::get<At + Next>(after) = {}), ...);
        }
        (std::make_index_sequence<std::tuple_size_v<decltype(after)> - At>());
        if (after != arguments)
            with(number(At + 1) + "..", after);
    }

    talvik::csp::CspContext invalidContext_;
    std::vector<Place> places_;
    std::map<ULONG_PTR, std::function<long(ULONG_PTR)>> owned_, kept_;
    std::size_t windowsSeen_ = 0;
    DWORD offered_ = 0;
};

// What is not zero or empty in a record, one after the other.
class Facts {
  public:
    Facts& operator()(const char* name, std::uint64_t value);
    Facts& operator()(const char* name, const std::string& text);
    Facts& operator()(const char* name, const unsigned char* field, std::size_t length);
    operator std::string() const { return text_; }

  private:
    std::string text_;
};
std::string factsOfHash(HCRYPTHASH hash);
std::string factsOfKey(HCRYPTKEY key);

inline constexpr DWORD UNTOUCHED_ERROR = 0x12345678;
inline constexpr DWORD UNTOUCHED = 0xCDCDCDCD;
inline constexpr HCRYPTHASH UNTOUCHED_HANDLE = 0xCDCDCDCDCDCD;

// The names of the keys that are filled with 0x11 and 0x22.
inline const std::string ONE(32, '1'), TWO(32, '2');

// Only tested for null by the provider.
VTableProvStruc* someTable();

Bytes bytes(std::size_t count, unsigned char first = 1);  // first, first + 1, ...
std::string hex(const Bytes& value);                      // lower case, as in recorded calls
Bytes cut(const Bytes& value, std::size_t length);
Bytes filled(std::size_t count, unsigned char value);
Bytes operator+(Bytes left, const Bytes& right);
Bytes reversed(const Bytes& value);
Bytes words(std::initializer_list<std::uint32_t> values);  // little-endian
// A key of the token that may wrap others, with `fill` as its name and `idFill` as its identifier.
TalvikSymmetricKey wrappingKey(std::uint32_t type, unsigned char fill, unsigned char idFill, std::int32_t idLength = 3);

Bytes content(const unsigned char* field, std::size_t length);
