// Single pieces of work, as an application does them through the provider and as it would on the device library itself.
#pragma once

#include "provider.h"

namespace talvik::bench {

// CPCreateHash to CPDestroyHash over `size` bytes in pieces of `piece`; fetches the digest.
void hashThroughCsp(const Provider& provider, HCRYPTPROV context, const Bytes& piece, std::size_t size);
void hashDirectly(const std::string& deviceId, const Bytes& piece, std::size_t size);

// SHA-256 of `data` and its signature.
void signThroughCsp(const Provider& provider, HCRYPTPROV context, const Bytes& data);
void signDirectly(const BenchToken& token, const Bytes& data);

}  // namespace talvik::bench
