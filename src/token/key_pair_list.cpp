#include "token/key_pair_list.h"

#include <atomic>

namespace talvik {
namespace {

constexpr std::size_t mostKept = 16384;  // key pairs: 21 MiB, for a token that lists as many

// Threads that list keys at the same time find it gone and allocate their own; the last one to finish leaves its
// memory.
std::atomic<KeyPairList::Records*> kept = nullptr;

std::unique_ptr<KeyPairList::Records> takeKept() {
    std::unique_ptr<KeyPairList::Records> records(kept.exchange(nullptr));
    return records != nullptr ? std::move(records) : std::make_unique<KeyPairList::Records>();
}

}  // namespace

KeyPairList::KeyPairList(const std::string& deviceId, void* reserved) : records_(takeKept()) {
    *records_ = talvik_getKeyPairList(deviceId.c_str(), reserved);
}

KeyPairList::~KeyPairList() {
    if (records_->capacity() <= mostKept) {
        const std::unique_ptr<Records> replaced(kept.exchange(records_.release()));
    }
}

}  // namespace talvik
