// One unchanging state of a token's objects, with the lists that the device library hands out of it.
#pragma once

#include <memory>
#include <unordered_map>

#include "srw_lock.h"
#include "token/device_library.h"
#include "token_data.h"

namespace virtual_token {

struct ObjectIdHash {
    std::size_t operator()(const ObjectId& id) const;
};

class ObjectSet {
  public:
    explicit ObjectSet(TokenObjects objects);

    const TokenObjects& objects() const { return objects_; }
    const KeyPairObject* keyPair(const ObjectId& id) const;  // null when there is none
    const AesKeyObject* aesKey(const ObjectId& id) const;    // null when there is none

    // Made on the first call and kept as long as the set lives.
    std::vector<TalvikKeyPair>& keyPairList();
    std::vector<TalvikCertificate>& certificateList();
    std::vector<TalvikSymmetricKey>& aesKeyList();

  private:
    struct Lists {
        std::vector<TalvikKeyPair> keyPairs;
        std::vector<TalvikCertificate> certificates;
        std::vector<TalvikSymmetricKey> aesKeys;
    };
    Lists& lists();

    const TokenObjects objects_;
    std::unordered_map<ObjectId, std::size_t, ObjectIdHash> keyPairIndex_;
    SrwLock lock_;
    std::unique_ptr<Lists> lists_;
};

TalvikKeyPair recordOf(const KeyPairObject& key);
TalvikSymmetricKey recordOf(const AesKeyObject& key);

// Copies a text into a record's field: cut to fit, NUL-terminated.
void copyText(const std::string& text, char (&field)[128]);

}  // namespace virtual_token
