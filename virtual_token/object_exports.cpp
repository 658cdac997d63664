// Lists, key generation and deletion, certificates, AES keys.
#include <algorithm>

#include "boundary.h"
#include "certificate.h"

using namespace virtual_token;

namespace {

// A device that is unknown or detached has nothing to list.
template <class Record>
std::vector<Record>& listOf(const char* deviceId, std::vector<Record>& (ObjectSet::*list)()) {
    static std::vector<Record> nothing;
    std::vector<Record>* found = &nothing;
    guarded([&] { found = &(*deviceOf(deviceId)->attachedSnapshot()->objects.*list)(); });
    return *found;
}

// A text field of a record need not be terminated.
std::string fieldText(const char (&field)[128]) {
    return std::string(field, std::find(std::begin(field), std::end(field), '\0'));
}

}  // namespace

std::vector<TalvikKeyPair>& talvik_getKeyPairList(const char* deviceId, void*) {
    return listOf(deviceId, &ObjectSet::keyPairList);
}

std::vector<TalvikCertificate>& talvik_getCertificateList(const char* deviceId, void*) {
    return listOf(deviceId, &ObjectSet::certificateList);
}

std::vector<TalvikSymmetricKey>& talvik_getAesKeyList(const char* deviceId, void*) {
    return listOf(deviceId, &ObjectSet::aesKeyList);
}

int talvik_getCertificateDetails(const unsigned char* der, int derLength, CertificateDetails& out, void*) {
    return guarded([&] {
        CertificateFacts facts = readCertificate(inputOf(der, derLength));
        out = {std::move(facts.subject),   std::move(facts.issuer),  std::move(facts.serialNumber),
               std::move(facts.validFrom), std::move(facts.validTo), std::move(facts.publicKey)};
    });
}

int talvik_generateKeyPair(const char* deviceId, const char* password, TalvikKeyPair* out, void*) {
    return guarded([&] {
        require(out != nullptr, Status::InvalidArgument);
        *out = recordOf(
            deviceOf(deviceId)->generateKeyPair(textOf(password), out->keyType, out->usage, fieldText(out->label)));
    });
}

int talvik_deleteKeyPair(const char* deviceId, const unsigned char* keyId, const char* password, bool, void*) {
    return guarded([&] { deviceOf(deviceId)->deleteKeyPair(textOf(password), objectIdOf(keyId)); });
}

int talvik_importCertificate(const char* deviceId, const char* password, TalvikCertificate* cert, void*) {
    return guarded([&] {
        require(cert != nullptr && cert->derLength <= sizeof cert->der && cert->keyAliasLength <= sizeof cert->keyAlias,
                Status::InvalidArgument);
        CertificateObject certificate;
        certificate.keyId = objectIdOf(cert->keyId);
        certificate.alias.assign(cert->keyAlias, cert->keyAlias + cert->keyAliasLength);
        certificate.label = fieldText(cert->label);
        certificate.der.assign(cert->der, cert->der + cert->derLength);
        deviceOf(deviceId)->importCertificate(textOf(password), std::move(certificate));
    });
}

int talvik_importAesKey(const char* deviceId, const char* password, TalvikSymmetricKey* key, void*) {
    return guarded([&] {
        require(key != nullptr && key->keyIdLength >= 0 && key->keyIdLength <= static_cast<int>(sizeof key->keyId),
                Status::InvalidArgument);
        AesKeyObject request;
        request.label = fieldText(key->label);
        request.name = fieldText(key->name);
        request.type = key->keyType;
        request.usage = key->usage;
        const TalvikSymmetricKey stored = recordOf(deviceOf(deviceId)->importAesKey(
            textOf(password), std::move(request), inputOf(key->keyId, key->keyIdLength)));
        // The key value stays in the record, where the caller put it.
        std::ranges::copy(stored.identifier, key->identifier);
        std::ranges::copy(stored.label, key->label);
        std::ranges::copy(stored.name, key->name);
        key->usage = stored.usage;
        key->keyType = stored.keyType;
        key->storageFlag = stored.storageFlag;
    });
}
