#include "object_set.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "asymmetric_key.h"
#include "status.h"

namespace virtual_token {
namespace {

template <std::size_t size>
std::uint32_t copyBytes(ByteView bytes, unsigned char (&field)[size]) {
    const std::size_t length = std::min(bytes.size(), size);
    std::copy_n(bytes.begin(), length, field);
    return static_cast<std::uint32_t>(length);
}

TalvikCertificate recordOf(const CertificateObject& certificate) {
    TalvikCertificate record{};
    copyBytes(certificate.keyId, record.keyId);
    record.derLength = copyBytes(certificate.der, record.der);
    record.keyAliasLength = copyBytes(certificate.alias, record.keyAlias);
    copyText(certificate.label, record.label);
    return record;
}

template <class Record, class Object>
std::vector<Record> recordsOf(const std::vector<Object>& objects) {
    std::vector<Record> records;
    records.reserve(objects.size());
    for (const Object& object : objects) {
        records.push_back(recordOf(object));
    }
    return records;
}

// RSA keys show their bare modulus; an elliptic-curve key shows its SubjectPublicKeyInfo, which begins with 0x30.
Bytes publicKeyField(const KeyPairObject& key) {
    return keyTypeOf(key.type)->isRsa() ? PublicKey(key.publicKey).modulus() : key.publicKey;
}

}  // namespace

std::size_t ObjectIdHash::operator()(const ObjectId& id) const {
    std::size_t hash = 0;  // identifiers are random: any eight bytes serve
    std::memcpy(&hash, id.data(), sizeof hash);
    return hash;
}

void copyText(const std::string& text, char (&field)[128]) {
    const std::size_t length = std::min(text.size(), sizeof field - 1);
    std::copy_n(text.begin(), length, field);
    field[length] = '\0';
}

TalvikKeyPair recordOf(const KeyPairObject& key) {
    TalvikKeyPair record{};
    copyBytes(key.id, record.keyId);
    record.modulusLength = copyBytes(publicKeyField(key), record.modulus);
    record.keyAliasLength = copyBytes(key.alias, record.keyAlias);
    copyText(key.label, record.label);
    record.usage = key.usage;
    record.keyType = key.type;
    record.storageFlag = key.storageFlag;
    return record;
}

TalvikSymmetricKey recordOf(const AesKeyObject& key) {
    TalvikSymmetricKey record{};
    copyBytes(key.id, record.identifier);
    record.keyIdLength = static_cast<std::int32_t>(copyBytes(key.id, record.keyId));
    copyText(key.label, record.label);
    copyText(key.name, record.name);
    record.usage = key.usage;
    record.keyType = key.type;
    record.storageFlag = key.storageFlag;
    return record;
}

ObjectSet::ObjectSet(TokenObjects objects) : objects_(std::move(objects)) {
    keyPairIndex_.reserve(objects_.keyPairs.size());
    for (std::size_t i = 0; i < objects_.keyPairs.size(); ++i) {
        keyPairIndex_.emplace(objects_.keyPairs[i].id, i);
    }
}

const KeyPairObject* ObjectSet::keyPair(const ObjectId& id) const {
    const auto found = keyPairIndex_.find(id);
    return found == keyPairIndex_.end() ? nullptr : &objects_.keyPairs[found->second];
}

const AesKeyObject* ObjectSet::aesKey(const ObjectId& id) const {
    const auto found = std::ranges::find(objects_.aesKeys, id, &AesKeyObject::id);
    return found == objects_.aesKeys.end() ? nullptr : &*found;
}

ObjectSet::Lists& ObjectSet::lists() {
    const std::lock_guard guard(lock_);
    if (!lists_) {
        lists_ = std::make_unique<Lists>(Lists{recordsOf<TalvikKeyPair>(objects_.keyPairs),
                                               recordsOf<TalvikCertificate>(objects_.certificates),
                                               recordsOf<TalvikSymmetricKey>(objects_.aesKeys)});
    }
    return *lists_;
}

std::vector<TalvikKeyPair>& ObjectSet::keyPairList() {
    return lists().keyPairs;
}
std::vector<TalvikCertificate>& ObjectSet::certificateList() {
    return lists().certificates;
}
std::vector<TalvikSymmetricKey>& ObjectSet::aesKeyList() {
    return lists().aesKeys;
}

}  // namespace virtual_token
