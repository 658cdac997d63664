// What the guarded heap sees of the blocks that are given back to it.
#pragma once

#include <cstddef>

namespace guarded_heap {

inline constexpr std::size_t secretSize = 16;

// Writes a secret to where an object keeps one.
void plantSecret(void* where) noexcept;

// How many blocks were released with that secret still in them.
int releasedSecrets() noexcept;

}  // namespace guarded_heap
