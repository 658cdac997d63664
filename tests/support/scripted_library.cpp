#include "support/scripted_library.h"

#include <algorithm>
#include <concepts>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

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

// --- arguments as text -----------------------------------------------------------------------------------------------

struct In {
    const void* bytes;
    std::int64_t length;
};
struct Out {
    const void* address;
};
// Hash handles are told apart in the record: the n-th that was opened since the reset is #n.
struct HashHandle {
    void* address;
};

std::string text(const char* value) {
    return value ? '"' + std::string(value) + '"' : "null";
}
std::string text(bool value) {
    return value ? "true" : "false";
}
template <class Number>
requires std::integral<Number> || std::is_enum_v<Number> std::string text(Number value) {
    return std::to_string(static_cast<std::int64_t>(value));
}
std::string text(const int* value) {
    return value ? std::to_string(*value) : "null";
}
std::string text(void* value) {
    return value ? "pointer" : "null";
}
std::string text(HashHandle value) {
    return "#" + std::to_string(reinterpret_cast<std::uintptr_t>(value.address));
}
std::string text(Out value) {
    return value.address ? "out" : "null";
}
std::string text(In value) {
    if (!value.bytes)
        return "null";
    std::string hex;
    for (std::int64_t i = 0; i < value.length; ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(value.bytes)[i];
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::string fieldText(const char (&field)[128]) {
    return '"' + std::string(field, strnlen(field, sizeof field)) + '"';
}
std::string fieldText(const unsigned char* field, std::uint32_t length, std::uint32_t room) {
    return text(In{field, std::min(length, room)}) + "/" + std::to_string(length);
}

std::string text(TalvikKeyPair* key) {
    return "{keyId=" + text(In{key->keyId, 16}) + " usage=" + text(key->usage) + " keyType=" + text(key->keyType) + "}";
}
std::string text(TalvikCertificate* cert) {
    return "{keyId=" + text(In{cert->keyId, 16}) + " der=" + fieldText(cert->der, cert->derLength, sizeof cert->der) +
           " keyAlias=" + fieldText(cert->keyAlias, cert->keyAliasLength, sizeof cert->keyAlias) +
           " label=" + fieldText(cert->label) + "}";
}
std::string text(TalvikSymmetricKey* key) {
    return "{key=" + fieldText(key->keyId, static_cast<std::uint32_t>(key->keyIdLength), sizeof key->keyId) +
           " label=" + fieldText(key->label) + " name=" + fieldText(key->name) + " usage=" + text(key->usage) +
           " keyType=" + text(key->keyType) + "}";
}

template <class... Arguments>
std::string callText(const std::string& operation, Arguments... arguments) {
    std::string list;
    ((list += (list.empty() ? "" : ", ") + text(arguments)), ...);
    return operation + "(" + list + ")";
}

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

template <class... Arguments>
Outcome answer(const std::string& operation, Arguments... arguments) {
    const std::string call = callText(operation, arguments...);
    std::function<void(const std::string&)> watcher;
    {
        const std::lock_guard guard(scriptLock);
        script().calls.push_back(call);
        ++script().counts[operation];
        watcher = script().watcher;
    }
    if (watcher)
        watcher(call);
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
std::vector<Record>& list(const char* deviceId, std::vector<Record> Token::*records) {
    static std::map<std::thread::id, std::vector<Record>> handedOut;
    const std::lock_guard guard(scriptLock);
    return handedOut[std::this_thread::get_id()] = script().token(deviceId).*records;
}

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
    std::string name = text(In{key.keyId, sizeof key.keyId});
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
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

// --- the 24 operations -----------------------------------------------------------------------------------------------

using namespace scripted;

int talvik_init(int mode, void* reserved, int option) {
    return answer(__func__, mode, reserved, option).status;
}

int talvik_initDevice(const char* deviceId, bool refresh, void* reserved) {
    return answer(__func__, deviceId, refresh, reserved).status;
}

TokenInfo talvik_getTokenInfo(const char* deviceId, void* reserved) {
    answer(__func__, deviceId, reserved);
    return Locked()->token(deviceId).info;
}

std::vector<std::string> talvik_getConnectedDeviceList(bool all, void* reserved) {
    const bool recorded = Locked()->recordedThread == std::this_thread::get_id();
    if (recorded)
        answer(__func__, all, reserved);
    else
        runHook("poll");
    const std::lock_guard guard(scriptLock);
    if (!recorded) {
        ++script().polls;
        polled.notify_all();
    }
    std::vector<std::string> devices;
    for (const auto& [deviceId, token] : script().tokens)
        devices.push_back(deviceId);
    return devices;
}

std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char* deviceId, void* reserved) {
    answer(__func__, deviceId, reserved);
    return list(deviceId, &Token::keyPairs);
}

std::vector<TalvikCertificate>& talvik_getCertificateList(const char* deviceId, void* reserved) {
    answer(__func__, deviceId, reserved);
    return list(deviceId, &Token::certificates);
}

std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char* deviceId, void* reserved) {
    answer(__func__, deviceId, reserved);
    return list(deviceId, &Token::aesKeys);
}

int talvik_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& out, void* reserved) {
    const Outcome outcome = answer(__func__, In{der, derLength}, derLength, Out{&out}, reserved);
    out.publicKey = outcome.output.value_or(Bytes{});
    return outcome.status;
}

int talvik_validatePassword(const char* deviceId, const char* password, int mode, int* remainingAttempts,
                            void* reserved) {
    const Outcome outcome = answer(__func__, deviceId, password, mode, remainingAttempts, reserved);
    if (outcome.length)
        *remainingAttempts = *outcome.length;
    return outcome.status;
}

int talvik_generateKeyPair(const char* deviceId, const char* password, TalvikKeyPair* out, void* reserved) {
    const Outcome outcome = answer(__func__, deviceId, password, out, reserved);
    if (outcome.status != 0)
        return outcome.status;
    const std::lock_guard guard(scriptLock);
    TalvikKeyPair made = script().generated;
    made.usage = made.usage ? made.usage : out->usage;
    made.keyType = made.keyType ? made.keyType : out->keyType;
    *out = made;
    return 0;
}

int talvik_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool storageFlag,
                         void* reserved) {
    return answer(__func__, deviceId, In{keyId, 16}, password, storageFlag, reserved).status;
}

int talvik_importCertificate(const char* deviceId, const char* password, TalvikCertificate* cert, void* reserved) {
    return answer(__func__, deviceId, password, cert, reserved).status;
}

int talvik_importAesKey(const char* deviceId, const char* password, TalvikSymmetricKey* key, void* reserved) {
    const Outcome outcome = answer(__func__, deviceId, password, key, reserved);
    if (outcome.output)
        std::copy_n(outcome.output->begin(), std::min<std::size_t>(outcome.output->size(), 16), key->identifier);
    return outcome.status;
}

int talvik_signHash(const char* deviceId, const unsigned char* keyId, const char* password, const unsigned char* hash,
                    int hashLength, unsigned char* signature, int* signatureLength, bool flag, void* reserved,
                    bool usePss) {
    return fill(answer(__func__, deviceId, In{keyId, 16}, password, In{hash, hashLength}, hashLength, Out{signature},
                       signatureLength, flag, reserved, usePss),
                signature, signatureLength);
}

int talvik_verifySignatureHash(unsigned int keySizeCode, const char* deviceId, const unsigned char* hash,
                               int hashLength, const unsigned char* publicKey, int publicKeyLength,
                               const unsigned char* signature, int signatureLength, void* reserved, bool usePss) {
    return answer(__func__, keySizeCode, deviceId, In{hash, hashLength}, hashLength, In{publicKey, publicKeyLength},
                  publicKeyLength, In{signature, signatureLength}, signatureLength, reserved, usePss)
        .status;
}

int talvik_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* plaintext, int plaintextLength,
                   unsigned char* ciphertext, int* ciphertextLength, const unsigned char* publicKey,
                   int publicKeyLength, void* reserved) {
    return fill(answer(__func__, type, padding, In{plaintext, plaintextLength}, plaintextLength, Out{ciphertext},
                       ciphertextLength, In{publicKey, publicKeyLength}, publicKeyLength, reserved),
                ciphertext, ciphertextLength);
}

int talvik_decrypt(const char* deviceId, const unsigned char* keyId, const char* password,
                   const unsigned char* ciphertext, int ciphertextLength, unsigned char** plaintext,
                   int* plaintextLength, bool storageFlag, void* reserved) {
    return allocate(answer(__func__, deviceId, In{keyId, 16}, password, In{ciphertext, ciphertextLength},
                           ciphertextLength, Out{plaintext}, Out{plaintextLength}, storageFlag, reserved),
                    plaintext, plaintextLength);
}

int talvik_encrypt_aes(const char* deviceId, EncryptionType type, const unsigned char* key, int keyLength,
                       const unsigned char* input, int inputLength, unsigned char** output, int* outputLength,
                       bool flag, const unsigned char* iv, int ivLength, const unsigned char* extra, int extraLength,
                       void* reserved) {
    return allocate(answer(__func__, deviceId, type, In{key, keyLength}, keyLength, In{input, inputLength}, inputLength,
                           Out{output}, Out{outputLength}, flag, In{iv, ivLength}, ivLength, In{extra, extraLength},
                           extraLength, reserved),
                    output, outputLength);
}

int talvik_decryptSymetric(const char* deviceId, const unsigned char* input, int inputLength, unsigned char* output,
                           int* outputLength, const unsigned char* iv, int ivLength, const unsigned char* key,
                           int keyLength, void* reserved) {
    return fill(answer(__func__, deviceId, In{input, inputLength}, inputLength, Out{output}, outputLength,
                       In{iv, ivLength}, ivLength, In{key, keyLength}, keyLength, reserved),
                output, outputLength);
}

int talvik_decrypt_aes(const char* deviceId, const unsigned char* keyId, int keyIdLength, const unsigned char* input,
                       int inputLength, unsigned char** output, int* outputLength, bool storageFlag,
                       const unsigned char* extra, int extraLength, void* reserved) {
    return allocate(answer(__func__, deviceId, In{keyId, keyIdLength}, keyIdLength, In{input, inputLength}, inputLength,
                           Out{output}, Out{outputLength}, storageFlag, In{extra, extraLength}, extraLength, reserved),
                    output, outputLength);
}

int talvik_generateRamdomNumber(const char* deviceId, int length, unsigned char* buffer, bool useSoftware,
                                void* reserved) {
    const Outcome outcome = answer(__func__, deviceId, length, Out{buffer}, useSoftware, reserved);
    return fill(outcome, buffer, &length);
}

int talvik_initHash(const char* deviceId, int algorithm, void** hashHandle, void* reserved) {
    const Outcome outcome = answer(__func__, deviceId, algorithm, Out{hashHandle}, reserved);
    if (outcome.status == 0)
        *hashHandle = reinterpret_cast<void*>(++Locked()->lastHashHandle);
    return outcome.status;
}

int talvik_updateHash(void* hashHandle, const unsigned char* data, int dataLength, void* reserved) {
    return answer(__func__, HashHandle{hashHandle}, In{data, dataLength}, dataLength, reserved).status;
}

int talvik_finalHash(void* hashHandle, unsigned char* digest, int* digestLength, void* reserved) {
    return fill(answer(__func__, HashHandle{hashHandle}, Out{digest}, digestLength, reserved), digest, digestLength);
}
