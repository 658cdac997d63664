#include "support/scripted_library.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "fake_library.h"

namespace scripted {
namespace {

struct Script {
    std::vector<std::pair<std::string, Token>> tokens;
    std::map<std::string, std::deque<Outcome>> queued;
    std::map<std::string, Outcome> standing;
    std::map<std::string, std::function<void()>> hooks;
    std::function<void(const std::string&)> watcher;
    std::map<std::string, int> counts;
    std::vector<std::string> calls;
    TalvikKeyPair generated{};
    std::thread::id recordedThread = std::this_thread::get_id();
    std::uintptr_t lastHashHandle = 0;
    int polls = 0;

    Token& token(const char* deviceId) {
        static Token unknown;
        unknown = {};
        const auto found =
            std::ranges::find(tokens, std::string(deviceId ? deviceId : ""), &decltype(tokens)::value_type::first);
        return found == tokens.end() ? unknown : found->second;
    }
};

std::mutex scriptLock;
std::condition_variable polled;

Script& script() {
    static Script instance;
    return instance;
}

// The script while it is locked: for the length of one expression.
struct Locked {
    Script* operator->() const { return &script(); }
    const std::lock_guard<std::mutex> guard{scriptLock};
};

// --- recording and answering -----------------------------------------------------------------------------------------

Outcome outcomeOf(Script& the, const std::string& operation) {
    if (auto& queue = the.queued[operation]; !queue.empty()) {
        const Outcome outcome = queue.front();
        queue.pop_front();
        return outcome;
    }
    const auto standing = the.standing.find(operation);
    return standing == the.standing.end() ? Outcome{} : standing->second;
}

void runHook(const std::string& operation) {
    std::unique_lock guard(scriptLock);
    const auto found = script().hooks.find(operation);
    const std::function<void()> hook = found == script().hooks.end() ? nullptr : found->second;
    guard.unlock();
    if (hook)
        hook();
}

Outcome answer(const Call& call) {
    const std::string operation = call.operation();
    std::function<void(const std::string&)> watcher;
    {
        const std::lock_guard guard(scriptLock);
        script().calls.push_back(call.text());
        ++script().counts[operation];
        watcher = script().watcher;
    }
    if (watcher)
        watcher(call.text());
    runHook(operation);
    const std::lock_guard guard(scriptLock);
    return outcomeOf(script(), operation);
}

// What is reported may be a lie, what is written is not: the output goes to the caller's buffer whole, or as far as a
// length preset by the caller allows.
int fill(const Outcome& outcome, unsigned char* buffer, int* length) {
    const Bytes output = outcome.output.value_or(Bytes{});
    const auto room = length && *length > 0 ? static_cast<std::size_t>(*length) : output.size();
    if (buffer)
        std::copy_n(output.begin(), std::min(output.size(), room), buffer);
    if (length && (outcome.status == 0 || outcome.length))
        *length = outcome.length.value_or(static_cast<int>(output.size()));
    return outcome.status;
}

int allocate(const Outcome& outcome, unsigned char** buffer, int* length) {
    if (outcome.status != 0 && !outcome.output)
        return outcome.status;
    const Bytes output = outcome.output.value_or(Bytes{});
    *buffer = static_cast<unsigned char*>(std::malloc(output.empty() ? 1 : output.size()));
    std::ranges::copy(output, *buffer);
    *length = outcome.length.value_or(static_cast<int>(output.size()));
    return outcome.status;
}

// Lists are handed out by reference and rebuilt by the next call, as the maker's library may do.
template <class Record>
std::vector<Record>& list(const Call& call, const char* deviceId, std::vector<Record> Token::*records) {
    static std::map<std::thread::id, std::vector<Record>> handedOut;
    answer(call);
    const std::lock_guard guard(scriptLock);
    return handedOut[std::this_thread::get_id()] = script().token(deviceId).*records;
}

// --- the library -----------------------------------------------------------------------------------------------------

class ScriptedLibrary final : public FakeLibrary {
  public:
    int status(const Call& call) override { return answer(call).status; }
    int fill(const Call& call, unsigned char* buffer, int, int* length) override {
        return scripted::fill(answer(call), buffer, length);
    }
    int allocate(const Call& call, unsigned char** buffer, int, int* length) override {
        return scripted::allocate(answer(call), buffer, length);
    }

    TokenInfo tokenInfo(const Call& call, const char* deviceId) override {
        answer(call);
        return Locked()->token(deviceId).info;
    }

    std::vector<std::string> devices(const Call& call) override {
        const bool recorded = Locked()->recordedThread == std::this_thread::get_id();
        if (recorded)
            answer(call);
        else
            runHook("poll");
        const std::lock_guard guard(scriptLock);
        if (!recorded) {
            ++script().polls;
            polled.notify_all();
        }
        std::vector<std::string> attached;
        for (const auto& [deviceId, token] : script().tokens)
            attached.push_back(deviceId);
        return attached;
    }

    std::vector<TalvikKeyPair>& keyPairs(const Call& call, const char* deviceId) override {
        return list(call, deviceId, &Token::keyPairs);
    }
    std::vector<TalvikCertificate>& certificates(const Call& call, const char* deviceId) override {
        return list(call, deviceId, &Token::certificates);
    }
    std::vector<TalvikSymmetricKey>& aesKeys(const Call& call, const char* deviceId) override {
        return list(call, deviceId, &Token::aesKeys);
    }

    int certificateDetails(const Call& call, const unsigned char*, int, CertificateDetails& out) override {
        const Outcome outcome = answer(call);
        out.publicKey = outcome.output.value_or(Bytes{});
        return outcome.status;
    }

    int validatePassword(const Call& call, int* remainingAttempts) override {
        const Outcome outcome = answer(call);
        if (outcome.length)
            *remainingAttempts = *outcome.length;
        return outcome.status;
    }

    int generateKeyPair(const Call& call, TalvikKeyPair* key) override {
        const Outcome outcome = answer(call);
        if (outcome.status != 0)
            return outcome.status;
        TalvikKeyPair made = Locked()->generated;
        made.usage = made.usage ? made.usage : key->usage;
        made.keyType = made.keyType ? made.keyType : key->keyType;
        *key = made;
        return 0;
    }

    int importAesKey(const Call& call, TalvikSymmetricKey* key) override {
        const Outcome outcome = answer(call);
        if (outcome.output)
            std::copy_n(outcome.output->begin(), std::min<std::size_t>(outcome.output->size(), 16), key->identifier);
        return outcome.status;
    }

    int initHash(const Call& call, void** hashHandle) override {
        const Outcome outcome = answer(call);
        if (outcome.status == 0)
            *hashHandle = reinterpret_cast<void*>(++Locked()->lastHashHandle);
        return outcome.status;
    }
};

}  // namespace

TokenInfo tokenInfo(const std::string& tokenId, bool loggedIn) {
    TokenInfo info;
    info.tokenId = tokenId;
    info.firmwareVersion = "7.1";
    info.loginState = info.ssoState = loggedIn ? 1 : 0;
    return info;
}

TalvikKeyPair keyPair(unsigned char fill, std::uint32_t usage, std::uint32_t keyType, std::uint32_t modulusBytes) {
    TalvikKeyPair key{};
    std::ranges::fill(key.keyId, fill);
    std::fill_n(key.modulus, modulusBytes, fill);
    key.modulus[0] = 0xC1;
    key.modulusLength = modulusBytes;
    key.keyAlias[0] = fill;
    key.keyAliasLength = 1;
    key.usage = usage;
    key.keyType = keyType;
    key.storageFlag = 1;
    const std::string label = "label " + std::to_string(fill);
    std::ranges::copy(label, key.label);
    return key;
}

std::string containerName(const TalvikKeyPair& key) {
    std::string name;
    for (const unsigned char byte : key.keyId) {
        name += "0123456789ABCDEF"[byte >> 4];
        name += "0123456789ABCDEF"[byte & 15];
    }
    return name;
}

TalvikCertificate certificateOf(const TalvikKeyPair& key, const Bytes& der) {
    TalvikCertificate cert{};
    std::ranges::copy(key.keyId, cert.keyId);
    std::ranges::copy(der, cert.der);
    cert.derLength = static_cast<std::uint32_t>(der.size());
    std::ranges::copy(key.keyAlias, cert.keyAlias);
    cert.keyAliasLength = key.keyAliasLength;
    return cert;
}

void reset() {
    const std::lock_guard guard(scriptLock);
    script() = {};
    script().recordedThread = std::this_thread::get_id();
}

void attach(const std::vector<std::pair<std::string, Token>>& tokens) {
    Locked()->tokens = tokens;
}

void next(const std::string& operation, const Outcome& outcome) {
    Locked()->queued[operation].push_back(outcome);
}

void always(const std::string& operation, const Outcome& outcome) {
    Locked()->standing[operation] = outcome;
}

void before(const std::string& operation, std::function<void()> hook) {
    Locked()->hooks[operation] = std::move(hook);
}

void watch(std::function<void(const std::string& call)> watcher) {
    Locked()->watcher = std::move(watcher);
}

void generates(const TalvikKeyPair& key) {
    Locked()->generated = key;
}

std::vector<std::string> takeCalls() {
    return std::exchange(Locked()->calls, {});
}

int callCount(const std::string& operation) {
    return Locked()->counts[operation];
}

bool waitForPolls(int count, std::chrono::milliseconds bound) {
    std::unique_lock guard(scriptLock);
    const int wanted = script().polls + count;
    return polled.wait_for(guard, bound, [&] { return script().polls >= wanted; });
}

int pollCount() {
    return Locked()->polls;
}

}  // namespace scripted

FakeLibrary& theLibrary() {
    static scripted::ScriptedLibrary library;
    return library;
}
