// Signs a SHA-256 digest with a key of the token, through CNG: sign_cng KEY [PIN]. KEY is a key's name as `talvik
// doctor` shows it. Without a PIN the provider asks in its own dialog.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    BYTE digest[32] = {1, 2, 3};  // of whatever is to be signed
    BYTE signature[512];
    DWORD size = 0;
    NCRYPT_PROV_HANDLE token = 0;
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = NCryptOpenStorageProvider(&token, L"Talvik Cryptographic Provider CSP", 0);
    if (status == ERROR_SUCCESS && argc > 2) {  // 8-bit characters, not the UTF-16 of other providers
        status = NCryptSetProperty(token, NCRYPT_PIN_PROPERTY, reinterpret_cast<BYTE*>(argv[2]),
                                   static_cast<DWORD>(std::strlen(argv[2])) + 1, 0);
    }
    if (status == ERROR_SUCCESS) {
        status = NCryptOpenKey(token, &key, std::wstring(name.begin(), name.end()).c_str(), 0, 0);
    }
    if (status == ERROR_SUCCESS) {  // PSS with a salt of 32 bytes, whatever the padding information would say
        status =
            NCryptSignHash(key, nullptr, digest, sizeof digest, signature, sizeof signature, &size, BCRYPT_PAD_PSS);
    }
    if (status != ERROR_SUCCESS) {
        std::fprintf(stderr, "refused: 0x%08lX\n", static_cast<unsigned long>(status));
        return 1;
    }
    for (DWORD i = 0; i < size; ++i) {
        std::printf("%02X", signature[i]);
    }
    NCryptFreeObject(key);
    NCryptFreeObject(token);
    return 0;
}
