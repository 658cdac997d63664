// Encryption and decryption of both faces: lengths that do not fit the key, the buffer or each other, under keys of the
// token and keys held in clear.
#include <cstring>

#include "fuzz/provider_fuzz.h"

namespace {

// A session key of the length that the library's script gives it, or the token's key when it cannot be imported.
HCRYPTKEY cspKey(const CspKey& tokenKey, Input& input) {
    constexpr unsigned char blob[] = {SIMPLEBLOB, 2, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0, 1, 2, 3};
    HCRYPTKEY key = 0;
    if (input.below(2) == 0) {
        CPImportKey(tokenContext(), blob, sizeof blob, tokenKey.handle, 0, &key);
    }
    return key;
}

NCRYPT_KEY_HANDLE cngKey(Input& input) {
    NCRYPT_KEY_HANDLE key = 0;
    constexpr std::uint32_t sizes[] = {16, 24, 32};
    const std::uint32_t size = input.oneOf(sizes);
    const BCRYPT_KEY_DATA_BLOB_HEADER header = {BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, size};
    const Guarded blob(sizeof header + size);
    std::memcpy(blob.data(), &header, sizeof header);
    if (input.below(2) == 0) {
        KSPImportKey(tokenProvider(), 0, BCRYPT_KEY_DATA_BLOB, nullptr, &key, blob.data(), blob.size(), 0);
    }
    return key;
}

void csp(const CspKey& tokenKey, Input& input) {
    const HCRYPTKEY sessionKey = cspKey(tokenKey, input);
    const HCRYPTKEY key = sessionKey != 0 ? sessionKey : tokenKey.handle;
    if (input.below(2) == 0) {
        CPSetKeyParam(tokenContext(), key, KP_IV, Guarded(16).data(), 0);
    }
    const Guarded data(input.take<std::uint16_t>() % 4097);
    const DWORD flags = input.take<DWORD>();
    DWORD length = data.size() == 0 ? 0 : input.take<std::uint16_t>() % (data.size() + 1);
    const bool encrypts = input.below(2) == 0;
    const bool isSizeQuery = input.below(8) == 7;
    if (encrypts) {
        CPEncrypt(tokenContext(), key, 0, TRUE, flags, isSizeQuery ? nullptr : data.data(), &length, data.size());
    } else {  // a decryption is told of no room but that of its input
        const Guarded ciphertext(length);
        CPDecrypt(tokenContext(), key, 0, TRUE, flags, isSizeQuery ? nullptr : ciphertext.data(), &length);
    }
    if (sessionKey != 0) {
        CPDestroyKey(tokenContext(), sessionKey);
    }
}

void cng(const CngKey& tokenKey, Input& input) {
    const NCRYPT_KEY_HANDLE clearKey = cngKey(input);
    const NCRYPT_KEY_HANDLE key = clearKey != 0 ? clearKey : tokenKey.handle;
    DWORD bits = input.take<std::uint16_t>();
    if (input.below(2) == 1) {
        KSPSetKeyProperty(tokenProvider(), key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&bits), sizeof bits, 0);
    }
    const Guarded in(input.take<std::uint16_t>() % 4097);
    const Guarded out(input.take<std::uint16_t>() % 4097);
    const DWORD flags = input.take<DWORD>();
    const bool isSizeQuery = input.below(8) == 7;
    const auto operation = input.below(2) == 0 ? KSPEncrypt : KSPDecrypt;
    DWORD size = 0;
    operation(tokenProvider(), key, in.data(), in.size(), nullptr, isSizeQuery ? nullptr : out.data(), out.size(),
              &size, flags);
    if (clearKey != 0) {
        KSPFreeKey(tokenProvider(), clearKey);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    if (run.input.below(2) == 0) {
        const CspKey key;
        run.lieFromHere();
        csp(key, run.input);
    } else {
        const CngKey key;
        run.lieFromHere();
        cng(key, run.input);
    }
    return 0;
}
