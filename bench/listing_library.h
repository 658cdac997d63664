// A device library for the benchmark: one token with as many keys as it is told, and operations that do nothing.
#pragma once

namespace talvik::bench {

// Name of the DLL's additional export, and its type. The keys differ in their identifiers.
inline constexpr char setListedKeysName[] = "setListedKeys";
using SetListedKeys = void (*)(unsigned int count);

}  // namespace talvik::bench
