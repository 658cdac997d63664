// KSPImportKey: blobs of every type, with and without a key that unwraps them.
#include "fuzz/run.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    const CngKey importKey;
    run.lieFromHere();
    const bool hasImportKey = run.input.below(2) == 0;
    const Guarded type = blobTypeName(run.input);
    const Guarded blob(run.input.takeRest());
    NCRYPT_KEY_HANDLE key = 0;
    if (KSPImportKey(tokenProvider(), hasImportKey ? importKey.handle : 0, type.as<wchar_t>(), nullptr, &key,
                     blob.data(), blob.size(), 0) == ERROR_SUCCESS) {
        useUpCngKey(key);
    }
    return 0;
}
