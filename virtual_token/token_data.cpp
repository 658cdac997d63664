#include "token_data.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>

#include "key_types.h"
#include "status.h"

namespace virtual_token {
namespace {

using Json = nlohmann::ordered_json;

constexpr int formatVersion = 1;
constexpr int mostAttempts = 100;
constexpr unsigned lowestCost = 2, highestCost = 1u << 20;

constexpr struct {
    SignOn value;
    const char* name;
} signOnNames[] = {{SignOn::Off, "off"}, {SignOn::On, "on"}, {SignOn::Expired, "expired"}};

constexpr const char* usageNames[] = {"none", "sign", "exchange", "both"};

SignOn signOnNamed(const std::string& name) {
    const auto* found = std::find_if(std::begin(signOnNames), std::end(signOnNames),
                                     [&name](const auto& row) { return row.name == name; });
    require(found != std::end(signOnNames), Status::StorageFailure);
    return found->value;
}

std::uint32_t usageNamed(const std::string& name) {
    const auto* found = std::find(std::begin(usageNames), std::end(usageNames), name);
    require(found != std::end(usageNames), Status::StorageFailure);
    return static_cast<std::uint32_t>(found - std::begin(usageNames));
}

// Views into the parsed document: copying each text once more would double the time that a large token takes.
const std::string& textAt(const Json& object, const char* name) {
    return object.at(name).get_ref<const std::string&>();
}
Bytes hexAt(const Json& object, const char* name) {
    return fromHex(textAt(object, name));
}
Bytes base64At(const Json& object, const char* name) {
    return fromBase64(textAt(object, name));
}

template <class Number>
Number numberAt(const Json& object, const char* name, Number lowest = 0,
                Number highest = std::numeric_limits<Number>::max()) {
    const Json& value = object.at(name);
    const std::int64_t number = value.is_number_integer() ? value.get<std::int64_t>() : -1;  // so are those beyond it
    require(number >= lowest && number <= highest, Status::StorageFailure);
    return static_cast<Number>(number);
}

ObjectId idAt(const Json& object, const char* name) {
    const Bytes bytes = hexAt(object, name);
    ObjectId id{};
    require(bytes.size() == id.size(), Status::StorageFailure);
    std::ranges::copy(bytes, id.begin());
    return id;
}

Json toJson(const PinSlot& slot) {
    return {{"attemptsLeft", slot.attemptsLeft},
            {"attemptsAllowed", slot.attemptsAllowed},
            {"kdf", "scrypt"},
            {"cost", slot.cost},
            {"salt", toHex(slot.salt)},
            {"masterKey", toBase64(slot.sealedMasterKey)}};
}

PinSlot pinSlotFrom(const Json& json) {
    require(textAt(json, "kdf") == "scrypt", Status::StorageFailure);
    PinSlot slot;
    slot.attemptsAllowed = numberAt(json, "attemptsAllowed", 1, mostAttempts);
    slot.attemptsLeft = numberAt(json, "attemptsLeft", 0, slot.attemptsAllowed);
    slot.cost = numberAt(json, "cost", lowestCost, highestCost);
    slot.salt = hexAt(json, "salt");
    slot.sealedMasterKey = base64At(json, "masterKey");
    require(std::has_single_bit(slot.cost), Status::StorageFailure);
    return slot;
}

Json toJson(const KeyPairObject& key) {
    return {{"id", toHex(key.id)},
            {"label", key.label},
            {"alias", toHex(key.alias)},
            {"type", keyTypeOf(key.type)->name},
            {"usage", usageNames[key.usage & 3]},
            {"storageFlag", key.storageFlag},
            {"publicKey", toBase64(key.publicKey)},
            {"secret", toBase64(key.sealedSecret)}};
}

KeyPairObject keyPairFrom(const Json& json) {
    const KeyType* type = keyTypeNamed(textAt(json, "type"));
    require(type != nullptr, Status::StorageFailure);
    KeyPairObject key;
    key.id = idAt(json, "id");
    key.label = textAt(json, "label");
    key.alias = hexAt(json, "alias");
    key.type = type->code;
    key.usage = usageNamed(textAt(json, "usage"));
    key.storageFlag = numberAt<std::uint8_t>(json, "storageFlag");
    key.publicKey = base64At(json, "publicKey");
    key.sealedSecret = base64At(json, "secret");
    return key;
}

Json toJson(const CertificateObject& certificate) {
    return {{"keyId", toHex(certificate.keyId)},
            {"label", certificate.label},
            {"alias", toHex(certificate.alias)},
            {"certificate", toBase64(certificate.der)}};
}

CertificateObject certificateFrom(const Json& json) {
    CertificateObject certificate;
    certificate.keyId = idAt(json, "keyId");
    certificate.label = textAt(json, "label");
    certificate.alias = hexAt(json, "alias");
    certificate.der = base64At(json, "certificate");
    return certificate;
}

Json toJson(const AesKeyObject& key) {
    return {{"id", toHex(key.id)},
            {"label", key.label},
            {"name", key.name},
            {"type", key.type},
            {"usage", key.usage},
            {"storageFlag", key.storageFlag},
            {"secret", toBase64(key.sealedSecret)}};
}

AesKeyObject aesKeyFrom(const Json& json) {
    AesKeyObject key;
    key.id = idAt(json, "id");
    key.label = textAt(json, "label");
    key.name = textAt(json, "name");
    key.type = numberAt<std::uint32_t>(json, "type");
    require(isAesKeyType(key.type), Status::StorageFailure);
    key.usage = numberAt<std::uint32_t>(json, "usage");
    key.storageFlag = numberAt<std::uint8_t>(json, "storageFlag");
    key.sealedSecret = base64At(json, "secret");
    return key;
}

template <class Object>
Json toJsonList(const std::vector<Object>& objects) {
    Json list = Json::array();
    for (const Object& object : objects) {
        list.push_back(toJson(object));
    }
    return list;
}

template <class Object>
std::vector<Object> listAt(const Json& json, const char* name, Object (*read)(const Json&)) {
    const Json& list = json.at(name);
    std::vector<Object> objects;
    objects.reserve(list.size());
    for (const Json& entry : list) {
        objects.push_back(read(entry));
    }
    return objects;
}

}  // namespace

const char* nameOf(SignOn signOn) {
    return signOnNames[static_cast<int>(signOn)].name;
}

const char* nameOfUsage(std::uint32_t usage) {
    return usageNames[usage & 3];
}

std::string writeTokenText(const TokenState& state, const TokenObjects& objects) {
    const Json json = {{"format", formatVersion},
                       {"id", state.id},
                       {"label", state.label},
                       {"firmwareVersion", state.firmwareVersion},
                       {"attached", state.attached},
                       {"clockSkewed", state.clockSkewed},
                       {"singleSignOn", nameOf(state.signOn)},
                       {"masterKeyId", state.masterKeyId},
                       {"userPin", toJson(state.userPin)},
                       {"adminPin", toJson(state.adminPin)},
                       {"keyPairs", toJsonList(objects.keyPairs)},
                       {"certificates", toJsonList(objects.certificates)},
                       {"aesKeys", toJsonList(objects.aesKeys)}};
    // A label is whatever bytes an application chose; what is not UTF-8 in it is replaced rather than refused.
    return json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void readTokenText(std::string_view text, TokenState& state, TokenObjects& objects) try {
    const Json json = Json::parse(text);
    require(json.at("format") == formatVersion, Status::StorageFailure);
    state.id = textAt(json, "id");
    state.label = textAt(json, "label");
    state.firmwareVersion = textAt(json, "firmwareVersion");
    state.attached = json.at("attached");
    state.clockSkewed = json.at("clockSkewed");
    state.signOn = signOnNamed(textAt(json, "singleSignOn"));
    state.masterKeyId = textAt(json, "masterKeyId");
    state.userPin = pinSlotFrom(json.at("userPin"));
    state.adminPin = pinSlotFrom(json.at("adminPin"));
    objects.keyPairs = listAt(json, "keyPairs", keyPairFrom);
    objects.certificates = listAt(json, "certificates", certificateFrom);
    objects.aesKeys = listAt(json, "aesKeys", aesKeyFrom);
} catch (const Json::exception& error) {
    throw TokenError(Status::StorageFailure, error.what());
} catch (const TokenError&) {
    throw TokenError(Status::StorageFailure, "the token file is damaged");
}

}  // namespace virtual_token
