// A device library that does nothing, at once: one token, whose user is logged in, with one RSA-2048 key pair. What is
// counted over it is the provider's own work.
#include "callgrind/idle_library.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "fake_library.h"

namespace {

TalvikKeyPair theKey() {
    TalvikKeyPair key = {};
    std::ranges::fill(key.keyId, static_cast<unsigned char>(0x11));
    std::ranges::fill(key.modulus, static_cast<unsigned char>(0xC1));
    key.modulusLength = 256;
    key.keyAliasLength = 16;
    key.usage = TALVIK_USAGE_BOTH;
    key.keyType = TALVIK_KEY_RSA_2048;
    return key;
}

class IdleLibrary final : public FakeLibrary {
  public:
    // The device monitor's thread rests here, so that nothing of it is counted.
    std::vector<std::string> devices(const Call& call) override {
        if (std::this_thread::get_id() != mainThread_) {
            std::unique_lock guard(lock_);
            resting_.wait(guard, [this] { return isOver_; });
        }
        return FakeLibrary::devices(call);
    }

    std::vector<TalvikKeyPair>& keyPairs(const Call&, const char*) override { return keys_; }

    int generateKeyPair(const Call& call, TalvikKeyPair* key) override {
        *key = keys_.front();
        return status(call);
    }

    void letMonitorGo() {
        const std::lock_guard guard(lock_);
        isOver_ = true;
        resting_.notify_all();
    }

  private:
    const std::thread::id mainThread_ = std::this_thread::get_id();
    std::mutex lock_;
    std::condition_variable resting_;
    bool isOver_ = false;
    std::vector<TalvikKeyPair> keys_ = {theKey()};
} library;

}  // namespace

FakeLibrary& theLibrary() {
    return library;
}

void idle_library::letMonitorGo() {
    library.letMonitorGo();
}
