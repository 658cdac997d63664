// Signs a text with the token's first signing key, through CryptoAPI. The provider asks for the PIN in its own dialog,
// or takes it from the command line.
#include <windows.h>

#include <wincrypt.h>

#include <cstdio>

int main(int argc, char** argv) {
    const char text[] = "hello";
    HCRYPTPROV token = 0;
    HCRYPTHASH hash = 0;
    BYTE signature[512];  // RSA-4096
    DWORD size = sizeof signature;
    bool done = CryptAcquireContextA(&token, nullptr, "Talvik Cryptographic Provider CSP", PROV_RSA_FULL, 0);
    if (done && argc > 1) {
        done = CryptSetProvParam(token, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(argv[1]), 0);
    }
    done = done && CryptCreateHash(token, CALG_SHA_256, 0, 0, &hash) &&
           CryptHashData(hash, reinterpret_cast<const BYTE*>(text), sizeof text - 1, 0) &&
           CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &size);
    if (!done) {
        std::fprintf(stderr, "refused: 0x%08lX\n", GetLastError());
        return 1;
    }
    for (DWORD i = size; i > 0; --i) {  // CryptoAPI's signatures begin with the least significant byte
        std::printf("%02X", signature[i - 1]);
    }
    CryptDestroyHash(hash);
    CryptReleaseContext(token, 0);
    return 0;
}
