// CPImportKey: blobs of every type, with and without a key that unwraps them.
#include "fuzz/run.h"

namespace {

void useUp(HCRYPTKEY key) {
    checkCspKey(key);
    for (const DWORD param : {KP_ALGID, KP_KEYLEN, KP_PERMISSIONS, KP_CERTIFICATE}) {
        DWORD size = 0;
        CPGetKeyParam(tokenContext(), key, param, nullptr, &size, 0);
        const Guarded value(size);
        CPGetKeyParam(tokenContext(), key, param, value.data(), &size, 0);
    }
    const Guarded data(2048);
    DWORD size = 32;
    CPEncrypt(tokenContext(), key, 0, TRUE, 0, data.data(), &size, data.size());
    size = 32;
    CPDecrypt(tokenContext(), key, 0, TRUE, 0, data.data(), &size);
    CPDestroyKey(tokenContext(), key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    const CspKey importingKey;
    run.lieFromHere();
    const bool hasImportingKey = run.input.below(2) == 0;
    const Guarded blob(run.input.takeRest());
    HCRYPTKEY key = 0;
    if (CPImportKey(tokenContext(), blob.data(), blob.size(), hasImportingKey ? importingKey.handle : 0, 0, &key)) {
        useUp(key);
    }
    return 0;
}
