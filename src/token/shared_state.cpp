#include "token/shared_state.h"

#include <mutex>

namespace talvik {
namespace {

std::mutex ivLock;
std::shared_ptr<const Bytes> ivBytes;

}  // namespace

std::atomic<bool> containerQueried{false};
std::atomic<unsigned int> useHardwareRng{1};

IvSnapshot sharedIv() {
    const std::lock_guard guard(ivLock);
    return IvSnapshot(ivBytes);
}

void setSharedIv(ByteView bytes) {
    auto kept = std::make_shared<const Bytes>(bytes.begin(), bytes.end());
    const std::lock_guard guard(ivLock);
    ivBytes.swap(kept);
}

}  // namespace talvik
