// What is done with a token's keys and certificates.
#include <algorithm>
#include <mutex>
#include <shared_mutex>

#include "certificate.h"
#include "status.h"
#include "token.h"

namespace virtual_token {
namespace {

constexpr std::size_t privateKeysKept = 1024;
constexpr std::uint8_t storedOnToken = 1;

ObjectId freshId() {
    ObjectId id;
    fillRandom(id.data(), id.size());
    return id;
}

bool isZero(const ObjectId& id) {
    return id == ObjectId{};
}

std::string labelFor(const char* kind, const ObjectId& id) {
    return std::string(kind) + " " + toHex(id).substr(0, 16);
}

// A sealed secret opens only as the object that it was sealed for.
std::string sealContext(const TokenState& state, const ObjectId& id) {
    return state.masterKeyId + "/" + toHex(id);
}

std::uint32_t usageFor(const KeyType& type, std::uint32_t wanted) {
    require(wanted <= TALVIK_USAGE_BOTH, Status::InvalidArgument);
    if (type.isRsa()) {
        return wanted == 0 ? TALVIK_USAGE_BOTH : wanted;
    }
    require(wanted != TALVIK_USAGE_EXCHANGE, Status::Unsupported);
    return TALVIK_USAGE_SIGN;
}

const KeyPairObject& usableKey(const Snapshot& now, const ObjectId& id, std::uint32_t usage) {
    const KeyPairObject* key = now.objects->keyPair(id);
    require(key != nullptr, Status::NoSuchObject);
    require((key->usage & usage) != 0, Status::UsageForbidden);
    return *key;
}

// The key pair that a certificate says it belongs to: by identifier, by alias, or by its public key.
const KeyPairObject* ownerOf(const CertificateObject& certificate, const Bytes& publicKeyInfo,
                             const std::vector<KeyPairObject>& keyPairs) {
    const auto found = std::ranges::find_if(keyPairs, [&](const KeyPairObject& key) {
        return !isZero(certificate.keyId)   ? key.id == certificate.keyId
               : !certificate.alias.empty() ? key.alias == certificate.alias
                                            : key.publicKey == publicKeyInfo;
    });
    return found == keyPairs.end() ? nullptr : &*found;
}

void place(CertificateObject certificate, const CertificateFacts& facts, TokenObjects& objects) {
    const KeyPairObject* key = ownerOf(certificate, facts.publicKeyInfo, objects.keyPairs);
    require(key != nullptr || isZero(certificate.keyId), Status::NoSuchObject);
    if (key != nullptr) {
        certificate.keyId = key->id;
        certificate.alias = certificate.alias.empty() ? key->alias : certificate.alias;
        certificate.label = certificate.label.empty() ? key->label : certificate.label;
    } else if (certificate.label.empty()) {
        certificate.label = facts.subject;
    }
    // A key has one certificate: a renewed one takes the place of its predecessor, and of itself where it came before
    // its key.
    std::erase_if(objects.certificates, [&](const CertificateObject& present) {
        return isZero(present.keyId) ? present.der == certificate.der : key != nullptr && present.keyId == key->id;
    });
    objects.certificates.push_back(std::move(certificate));
}

}  // namespace

KeyPairObject Token::storeKeyPair(std::string_view pin, const KeyType& type, std::uint32_t usage, std::string label,
                                  const std::function<GeneratedKey()>& make, const std::vector<Bytes>& certificates) {
    usage = usageFor(type, usage);
    const SnapshotPointer now = attachedSnapshot();
    const MasterKey masterKey = unlockIn(now, pin);

    const GeneratedKey made = make();
    KeyPairObject key;
    key.id = freshId();
    const std::string alias = toHex(key.id);
    key.alias.assign(alias.begin(), alias.end());
    key.label = label.empty() ? labelFor(type.name, key.id) : std::move(label);
    key.type = type.code;
    key.usage = usage;
    key.storageFlag = storedOnToken;
    key.publicKey = made.publicKey;
    key.sealedSecret = seal(*masterKey, made.secret, sealContext(now->state, key.id));
    changeObjects([&](TokenObjects& objects) {
        require(std::ranges::find(objects.keyPairs, key.publicKey, &KeyPairObject::publicKey) == objects.keyPairs.end(),
                Status::AlreadyExists);
        objects.keyPairs.push_back(key);
        for (const Bytes& der : certificates) {
            place({{}, {}, "", der}, readCertificate(der), objects);
        }
    });
    return key;
}

KeyPairObject Token::generateKeyPair(std::string_view pin, std::uint32_t type, std::uint32_t usage, std::string label) {
    const KeyType* keyType = keyTypeOf(type == 0 ? TALVIK_KEY_RSA_2048 : type);
    require(keyType != nullptr, Status::Unsupported);
    return storeKeyPair(pin, *keyType, usage, std::move(label), [keyType] { return generateKey(*keyType); }, {});
}

KeyPairObject Token::importKeyPair(std::string_view pin, const GeneratedKey& key, std::uint32_t usage,
                                   std::string label, const std::vector<Bytes>& certificates) {
    const PublicKey publicKey(key.publicKey);
    const KeyType* keyType = publicKey.isRsa() ? keyTypeOfModulus(publicKey.modulus()) : publicKey.curve();
    require(keyType != nullptr, Status::BadKey);
    return storeKeyPair(
        pin, *keyType, usage, std::move(label), [&key] { return key; }, certificates);
}

void Token::deleteKeyPair(std::string_view pin, const ObjectId& id) {
    unlock(pin);
    changeObjects([&id](TokenObjects& objects) {
        const auto removed = std::erase_if(objects.keyPairs, [&id](const KeyPairObject& key) { return key.id == id; });
        require(removed > 0, Status::NoSuchObject);
        std::erase_if(objects.certificates, [&id](const CertificateObject& entry) { return entry.keyId == id; });
    });
}

void Token::deleteCertificate(std::string_view pin, const Bytes& der) {
    unlock(pin);
    changeObjects([&der](TokenObjects& objects) {
        require(std::erase_if(objects.certificates,
                              [&der](const CertificateObject& present) { return present.der == der; }) > 0,
                Status::NoSuchObject);
    });
}

void Token::importCertificate(std::string_view pin, CertificateObject certificate) {
    const CertificateFacts facts = readCertificate(certificate.der);
    unlock(pin);
    changeObjects([&](TokenObjects& objects) { place(std::move(certificate), facts, objects); });
}

AesKeyObject Token::importAesKey(std::string_view pin, AesKeyObject key, ByteView value) {
    const AesKeyType* type = aesKeyTypeOf(value.size());
    require(type != nullptr, Status::BadKey);
    // The code of the 256-bit keys also stands for 24 bytes, as it does where keys are used.
    const bool typeFits =
        key.type == 0 || key.type == type->code || (key.type == TALVIK_KEY_AES_256 && type->code == TALVIK_KEY_AES_192);
    require(typeFits, Status::BadKey);
    const SnapshotPointer now = attachedSnapshot();
    const MasterKey masterKey = unlockIn(now, pin);
    key.id = freshId();
    key.type = type->code;
    key.storageFlag = storedOnToken;
    if (key.label.empty()) {
        key.label = labelFor(type->name, key.id);
    }
    if (key.name.empty()) {
        key.name = key.label;
    }
    key.sealedSecret = seal(*masterKey, value, sealContext(now->state, key.id));
    changeObjects([&key](TokenObjects& objects) { objects.aesKeys.push_back(key); });
    return key;
}

Token::PrivateKeyPointer Token::privateKey(const TokenState& state, const KeyPairObject& key,
                                           const SecretBytes& masterKey) {
    {
        const std::shared_lock guard(lock_);
        const auto found = privateKeys_.find(key.id);
        if (found != privateKeys_.end()) {
            return found->second;
        }
    }
    const SecretBytes secret = unseal(masterKey, key.sealedSecret, sealContext(state, key.id));
    auto ready = std::make_shared<const PrivateKey>(key.publicKey, secret);
    const std::lock_guard guard(lock_);
    if (privateKeys_.size() >= privateKeysKept) {
        privateKeys_.erase(privateKeys_.begin());
    }
    privateKeys_[key.id] = ready;
    return ready;
}

Token::PrivateKeyPointer Token::privateKeyFor(std::string_view pin, const ObjectId& id, std::uint32_t usage) {
    const SnapshotPointer now = attachedSnapshot();
    // Told before the PIN is looked at: whoever still holds one is to ask for it again.
    require(now->state.signOn != SignOn::Expired, Status::SignOnExpired);
    const MasterKey masterKey = unlockIn(now, pin);
    return privateKey(now->state, usableKey(*now, id, usage), *masterKey);
}

Bytes Token::sign(std::string_view pin, const ObjectId& id, ByteView digest, bool pss) {
    return privateKeyFor(pin, id, TALVIK_USAGE_SIGN)->sign(digest, pss);
}

SecretBytes Token::decrypt(std::string_view pin, const ObjectId& id, ByteView ciphertext) {
    return privateKeyFor(pin, id, TALVIK_USAGE_EXCHANGE)->decrypt(ciphertext);
}

SecretBytes Token::aesKeyValue(const ObjectId& id) {
    const SnapshotPointer now = attachedSnapshot();
    const AesKeyObject* key = now->objects->aesKey(id);
    require(key != nullptr, Status::NoSuchObject);
    return unseal(*openedMasterKey(), key->sealedSecret, sealContext(now->state, id));
}

}  // namespace virtual_token
