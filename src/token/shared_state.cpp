#include "token/shared_state.h"

namespace talvik {

Bytes sharedIv;
std::atomic<bool> containerQueried{false};
std::atomic<unsigned int> useHardwareRng{1};

}  // namespace talvik
