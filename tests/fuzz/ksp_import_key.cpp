// KSPImportKey: blobs of every type, with and without a key that unwraps them.
#include "fuzz/run.h"

namespace {

void useUp(NCRYPT_KEY_HANDLE key) {
    checkCngKey(key);
    for (const wchar_t* const type : {BCRYPT_RSAPUBLIC_BLOB, LEGACY_RSAPUBLIC_BLOB}) {
        DWORD size = 0;
        if (KSPExportKey(tokenProvider(), key, 0, type, nullptr, nullptr, 0, &size, 0) == ERROR_SUCCESS) {
            const Guarded blob(size);
            KSPExportKey(tokenProvider(), key, 0, type, nullptr, blob.data(), blob.size(), &size, 0);
        }
    }
    const Guarded data(2048);
    DWORD size = 0;
    KSPEncrypt(tokenProvider(), key, data.data(), 32, nullptr, data.data(), data.size(), &size, 0);
    KSPDecrypt(tokenProvider(), key, data.data(), 32, nullptr, data.data(), data.size(), &size, 0);
    KSPFreeKey(tokenProvider(), key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    NCRYPT_KEY_HANDLE importKey = 0;
    KSPOpenKey(tokenProvider(), &importKey, std::wstring(32, L'0').c_str(), 0, 0);
    run.lieFromHere();
    const bool hasImportKey = run.input.below(2) == 0;
    const Guarded type = blobTypeName(run.input);
    const Guarded blob(run.input.takeRest());
    NCRYPT_KEY_HANDLE key = 0;
    if (KSPImportKey(tokenProvider(), hasImportKey ? importKey : 0, type.as<wchar_t>(), nullptr, &key, blob.data(),
                     blob.size(), 0) == ERROR_SUCCESS) {
        useUp(key);
    }
    KSPFreeKey(tokenProvider(), importKey);
    return 0;
}
