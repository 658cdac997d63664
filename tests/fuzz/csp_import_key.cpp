// CPImportKey: blobs of every type, with and without a key that unwraps them.
#include "fuzz/run.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    const CspKey importingKey;
    run.lieFromHere();
    const bool hasImportingKey = run.input.below(2) == 0;
    const Guarded blob(run.input.takeRest());
    HCRYPTKEY key = 0;
    if (CPImportKey(tokenContext(), blob.data(), blob.size(), hasImportingKey ? importingKey.handle : 0, 0, &key)) {
        useUpCspKey(key);
    }
    return 0;
}
