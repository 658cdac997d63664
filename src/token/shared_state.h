// The process-wide settings that both faces, or several contexts, share on purpose. None of them is locked: they are
// set by applications before the operations that read them.
#pragma once

#include <atomic>

#include "token/key_encoding.h"

namespace talvik {

// The initialisation vector of every AES operation of both faces; empty until set. Deliberately not per key.
extern Bytes sharedIv;

// Set once any caller has read PP_CONTAINER or PP_UNIQUE_CONTAINER; widens what CPGetUserKey accepts.
extern std::atomic<bool> containerQueried;

// PP_USE_HARDWARE_RNG: whether random bytes come from the token's generator.
extern std::atomic<unsigned int> useHardwareRng;

}  // namespace talvik
