#include "device.h"

#include <algorithm>
#include <cstring>

#include "certificate.h"
#include "device_library.h"
#include "doctor_system.h"
#include "public_key_info.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::systemErrorText;
using virtual_token::TokenError;
using virtual_token::upperCase;

constexpr unsigned char usualExponent[] = {1, 0, 1};
constexpr int largestSignature = 1024;

const DeviceLibrary& library() {
    static const DeviceLibrary loaded = [] {
        const DeviceLibrary found;
        if (!found) {
            throw TokenError(Status::StorageFailure, "TalvikDSCLibrary.dll cannot be loaded: " +
                                                         systemErrorText(GetLastError()) + ". See: talvik doctor");
        }
        if (found.exported() != DeviceLibrary::operations()) {
            throw TokenError(Status::StorageFailure, "TalvikDSCLibrary.dll lacks operations. See: talvik doctor");
        }
        TALVIK_CALL(found, talvik_init)(0, nullptr, 2);
        return found;
    }();
    return loaded;
}

// Only the virtual token's statuses are known beyond the two that every library shares.
std::optional<Status> knownStatus(int status) {
    static const bool isVirtual = isVirtualToken(describeModule(library().path()));
    const Status known = virtual_token::factsOf(static_cast<Status>(status)).status;
    const bool isShared = status == TALVIK_STATUS_TIME_MISMATCH || status == TALVIK_STATUS_SIGN_ON_EXPIRED;
    return isShared || (isVirtual && static_cast<int>(known) == status) ? std::optional(known) : std::nullopt;
}

[[noreturn]] void fail(int status, const std::string& what) {
    const std::optional<Status> known = knownStatus(status);
    throw TokenError(known.value_or(Status::BadData),
                     what + ": " +
                         (known ? virtual_token::factsOf(*known).text
                                : "status " + std::to_string(status) + " of the device library"));
}

void requireDone(int status, const std::string& token, const char* what) {
    if (status != 0) {
        fail(status, "token " + token + ": " + what);
    }
}

template <class Record>
std::vector<Record> listOf(const std::string& id, const char* operation) {
    return library().get<std::vector<Record>&(const char*, void*)>(operation)(id.c_str(), nullptr);
}

template <std::size_t size>
ByteView bounded(const unsigned char (&field)[size], std::uint32_t length) {
    return ByteView(field).first(std::min<std::size_t>(length, size));
}

void putText(const std::string& text, char (&field)[128]) {
    std::copy_n(text.begin(), std::min(text.size(), sizeof field - 1), field);
}

}  // namespace

std::string containerName(const unsigned char (&keyId)[16]) {
    return virtual_token::toHex(keyId);
}

std::string keyTypeName(std::uint32_t type) {
    const auto* known = virtual_token::keyTypeOf(type);
    return known != nullptr ? known->name : "type " + std::to_string(type);
}

std::string usageName(std::uint32_t usage) {
    static constexpr const char* names[] = {"signature", "exchange", "signature and exchange"};
    return usage >= 1 && usage <= std::size(names) ? names[usage - 1] : "usage " + std::to_string(usage);
}

std::string textOf(const char (&field)[128]) {
    return std::string(field, std::find(std::begin(field), std::end(field), '\0'));
}

ByteView publicKeyOf(const TalvikKeyPair& key) {
    return bounded(key.modulus, key.modulusLength);
}

Bytes publicKeyInfoOf(const TalvikKeyPair& key) {
    const ByteView held = publicKeyOf(key);
    const auto* type = virtual_token::keyTypeOf(key.keyType);
    const bool isBareModulus = type != nullptr && type->isRsa();
    return isBareModulus ? virtual_token::rsaPublicKeyInfo(held, usualExponent) : Bytes(held.begin(), held.end());
}

ByteView derOf(const TalvikCertificate& certificate) {
    return bounded(certificate.der, certificate.derLength);
}

bool belongTogether(const TalvikCertificate& certificate, const TalvikKeyPair& key) {
    return std::memcmp(certificate.keyId, key.keyId, sizeof key.keyId) == 0;
}

// --- a token ---

Device::Device(std::string id) : id_(std::move(id)) {
    requireDone(TALVIK_CALL(library(), talvik_initDevice)(id_.c_str(), true, nullptr), id_, "it does not start");
}

std::vector<TalvikKeyPair> Device::keys() const {
    return listOf<TalvikKeyPair>(id_, "talvik_getKeyPairList");
}

std::vector<TalvikCertificate> Device::certificates() const {
    return listOf<TalvikCertificate>(id_, "talvik_getCertificateList");
}

bool Device::signedOn() const {
    const TokenInfo info = TALVIK_CALL(library(), talvik_getTokenInfo)(id_.c_str(), nullptr);
    return !info.tokenId.empty() && info.loginState == 1 && info.ssoState == 1;
}

void Device::login(const std::string& pin) {
    pin_ = pin;
    if (pin.empty()) {
        return;
    }
    int left = 0;
    const int status = TALVIK_CALL(library(), talvik_validatePassword)(id_.c_str(), pin.c_str(), 1, &left, nullptr);
    if (status == 0) {
        return;
    }
    // Of a library that is not known every other status stands for a PIN that it refuses.
    const Status known = knownStatus(status).value_or(Status::WrongPin);
    if (known != Status::WrongPin && known != Status::PinLocked) {
        fail(status, "token " + id_);
    }
    if (left <= 0) {
        throw TokenError(Status::PinLocked, "token " + id_ + ": the PIN is locked; unblock it with the token maker's " +
                                                "software (virtual token: talvik token unblock)");
    }
    throw TokenError(Status::WrongPin, "token " + id_ + ": the PIN is wrong; attempts left: " + std::to_string(left));
}

Bytes Device::sign(const TalvikKeyPair& key, ByteView digest) const {
    Bytes signature(largestSignature);
    int length = largestSignature;
    requireDone(TALVIK_CALL(library(), talvik_signHash)(id_.c_str(), key.keyId, pin_.c_str(), digest.data(),
                                                        static_cast<int>(digest.size()), signature.data(), &length,
                                                        false, nullptr, false),
                id_, "it does not sign");
    requireDone(length < 0 || length > largestSignature, id_, "it gives a signature of impossible length");
    signature.resize(static_cast<std::size_t>(length));
    return signature;
}

TalvikKeyPair Device::generate(std::uint32_t type, std::uint32_t usage, const std::string& label) const {
    TalvikKeyPair key{};
    key.keyType = type;
    key.usage = usage;
    putText(label, key.label);
    requireDone(TALVIK_CALL(library(), talvik_generateKeyPair)(id_.c_str(), pin_.c_str(), &key, nullptr), id_,
                "it makes no such key");
    return key;
}

void Device::remove(const TalvikKeyPair& key) const {
    requireDone(TALVIK_CALL(library(), talvik_deleteKeyPair)(id_.c_str(), key.keyId, pin_.c_str(), key.storageFlag != 0,
                                                             nullptr),
                id_, "it does not delete the key");
}

void Device::store(ByteView certificate, const TalvikKeyPair* key, const std::string& label) const {
    TalvikCertificate record{};
    std::ranges::copy(certificate, record.der);
    record.derLength = static_cast<std::uint32_t>(certificate.size());
    if (key != nullptr) {
        std::ranges::copy(key->keyId, record.keyId);
        std::ranges::copy(key->keyAlias, record.keyAlias);
        record.keyAliasLength = key->keyAliasLength;
        std::ranges::copy(key->label, record.label);
    }
    if (!label.empty()) {
        std::ranges::fill(record.label, '\0');
        putText(label, record.label);
    }
    requireDone(TALVIK_CALL(library(), talvik_importCertificate)(id_.c_str(), pin_.c_str(), &record, nullptr), id_,
                "it does not store the certificate");
}

std::vector<std::string> attachedTokens() {
    return TALVIK_CALL(library(), talvik_getConnectedDeviceList)(false, nullptr);
}

std::vector<Device> attachedDevices() {
    std::vector<Device> devices;
    for (const std::string& id : attachedTokens()) {
        devices.emplace_back(id);
    }
    if (devices.empty()) {
        throw TokenError(Status::NoSuchDevice,
                         "no token is attached. Plug it in; with the virtual token: talvik token list");
    }
    return devices;
}

// --- which token and which key ---

void TokenOption::addTo(CLI::App& command) {
    command.add_option("--token", token, "Identifier of the token (the attached one if not given)");
}

std::vector<Device> TokenOption::devices() const {
    if (token.empty()) {
        return attachedDevices();
    }
    const std::vector<std::string> attached = attachedTokens();
    if (std::ranges::find(attached, token) != attached.end()) {
        return {Device(token)};
    }
    std::string others;
    for (const std::string& id : attached) {
        others += (others.empty() ? "; attached: " : ", ") + id;
        if (upperCase(id) == upperCase(token)) {
            others += " (upper and lower case count)";
        }
    }
    throw TokenError(Status::NoSuchDevice, "--token: no token " + token + " is attached" + others);
}

Device TokenOption::device() const {
    std::vector<Device> found = devices();
    if (found.size() > 1) {
        std::string ids;
        for (const Device& each : found) {
            ids += (ids.empty() ? "" : ", ") + each.id();
        }
        throw TokenError(Status::InvalidArgument,
                         "several tokens are attached: choose one of " + ids + " with --token");
    }
    return found.front();
}

KeyOnToken TokenOption::key(const std::string& name) const {
    std::vector<KeyOnToken> found;
    for (const Device& each : devices()) {
        for (const TalvikKeyPair& candidate : each.keys()) {
            if (name.empty() || containerName(candidate.keyId) == upperCase(name) || textOf(candidate.label) == name) {
                found.push_back({each, candidate});
            }
        }
    }
    if (found.empty()) {
        throw TokenError(Status::NoSuchObject,
                         "--key: no attached token holds a key " + name + ". To see them: talvik key list");
    }
    if (found.size() > 1) {
        throw TokenError(Status::InvalidArgument,
                         name.empty() ? "--key: there are several keys; name one"
                                      : "--key: several keys are named " + name + "; use the container, or --token");
    }
    return found.front();
}

void TokenOption::login(Device& device) const {
    device.login(pin.given() || !device.signedOn() ? pin.read() : "");
}

}  // namespace talvik_tool
