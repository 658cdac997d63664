// A library that does nothing: what is measured is the provider's own cost. Its key list is as long as the benchmark
// says.
#include "listing_library.h"

#include <cstring>

#include "fake_library.h"

namespace {

class ListingLibrary final : public FakeLibrary {
  public:
    std::vector<TalvikKeyPair>& keyPairs(const Call&, const char*) override { return keys; }

    std::vector<TalvikKeyPair> keys;
} library;

TalvikKeyPair makeKey(unsigned int number) {
    TalvikKeyPair key = {};
    std::memcpy(key.keyId, &number, sizeof number);
    std::memset(key.modulus, 0xC1, 256);
    key.modulusLength = 256;
    std::memcpy(key.keyAlias, &number, sizeof number);
    key.keyAliasLength = sizeof number;
    std::strcpy(key.label, "Bench key");
    key.usage = TALVIK_USAGE_BOTH;
    key.keyType = TALVIK_KEY_RSA_2048;
    return key;
}

}  // namespace

FakeLibrary& theLibrary() {
    return library;
}

extern "C" __declspec(dllexport) void setListedKeys(unsigned int count) {
    library.keys.clear();
    for (unsigned int number = 0; number < count; ++number) {
        library.keys.push_back(makeKey(number));
    }
}
