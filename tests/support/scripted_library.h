// A device library that does nothing but what a test has told it to, and that remembers every call.
//
// Linked into a test program it stands in for the token maker's library; built as a TalvikDSCLibrary.dll of its own it
// shows that the provider runs over any library with that contract, and the functions below are then exports of that
// DLL.
//
// An operation answers with the next outcome queued for it, else with its standing outcome, else with success. The
// script is guarded by a lock of its own; hooks run outside it, so that a hook may change the script.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "token/device_library.h"

namespace scripted {

using Bytes = std::vector<unsigned char>;

// What one call of an operation does.
struct Outcome {
    int status = 0;
    std::optional<Bytes> output = std::nullopt;  // signature, plaintext, digest, random bytes, public key
    std::optional<int> length = std::nullopt;    // reported instead of the output's size; the remaining attempts
};

// One token and what is on it.
struct Token {
    TokenInfo info;
    std::vector<TalvikKeyPair> keyPairs;
    std::vector<TalvikCertificate> certificates;
    std::vector<TalvikSymmetricKey> aesKeys;
};

// A token that answers but has no one logged in; `loggedIn` makes it one with single sign-on.
TALVIK_DEVICE_API TokenInfo tokenInfo(const std::string& tokenId, bool loggedIn = false);

// Sixteen bytes of `fill`; a key named by them with `modulusBytes` bytes of modulus, the first of them 0xC1.
TALVIK_DEVICE_API TalvikKeyPair keyPair(unsigned char fill, std::uint32_t usage = TALVIK_USAGE_BOTH,
                                        std::uint32_t keyType = TALVIK_KEY_RSA_2048, std::uint32_t modulusBytes = 256);
TALVIK_DEVICE_API std::string containerName(const TalvikKeyPair& key);

// A certificate of `der` that is paired with `key` by its alias.
TALVIK_DEVICE_API TalvikCertificate certificateOf(const TalvikKeyPair& key, const Bytes& der);

// Back to the start: no tokens, no outcomes, no hooks, no calls. The calling thread becomes the one whose device
// enumerations are recorded; those of other threads are the monitor's polls and are only counted.
TALVIK_DEVICE_API void reset();

// The attached tokens in order, each with what is on it; the list replaces the one before.
TALVIK_DEVICE_API void attach(const std::vector<std::pair<std::string, Token>>& tokens);

// `operation` is the operation's name. `next` queues an outcome, `always` sets the standing one.
TALVIK_DEVICE_API void next(const std::string& operation, const Outcome& outcome);
TALVIK_DEVICE_API void always(const std::string& operation, const Outcome& outcome);

// Runs at each call of the operation, before it is answered; "poll" stands for the other threads' enumerations.
TALVIK_DEVICE_API void before(const std::string& operation, std::function<void()> hook);

// Runs at each call of any operation, on its thread, with what takeCalls would say of it.
TALVIK_DEVICE_API void watch(std::function<void(const std::string& call)> watcher);

// The record that talvik_generateKeyPair returns; the usage and the type of the request are kept when these are 0.
TALVIK_DEVICE_API void generates(const TalvikKeyPair& key);

// The calls since the last reset or take, one text each as fake_library.h tells. Hash handles are told apart: the n-th
// that was opened since the reset is #n.
TALVIK_DEVICE_API std::vector<std::string> takeCalls();

// How often each operation was called since the reset, polls left out.
TALVIK_DEVICE_API int callCount(const std::string& operation);

// Waits until another thread has enumerated the tokens `count` more times and has its answer; false on timeout.
TALVIK_DEVICE_API bool waitForPolls(int count, std::chrono::milliseconds bound);
TALVIK_DEVICE_API int pollCount();

}  // namespace scripted
