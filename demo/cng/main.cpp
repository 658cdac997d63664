// talvik_cng_demo FILE OUT
//
// Signs FILE as an ordinary CNG application does: RSA-PSS with an RSA key of the token, ECDSA with a P-256 key, both
// over SHA-256. A key that the token does not have yet is made. Writes to the folder OUT the signatures (pss.sig,
// ecdsa.sig) and what is needed to check them (rsa-public.der, a PKCS#1 RSAPublicKey; ec-public.der, a
// SubjectPublicKeyInfo).
//
// TALVIK_DEMO_PIN, when set, is the PIN that the program gives to the provider; otherwise the provider asks a person.
// The exit code is 3 where the system's CNG opens something else under the provider's name.
#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <optional>

#include "../cryptoapi.h"

namespace {

using namespace demo;
namespace fs = std::filesystem;

constexpr wchar_t cngProviderName[] = L"Talvik Cryptographic Provider CSP";

void requireStatus(LONG status, const char* attempt) {
    if (status != ERROR_SUCCESS) {
        throw Failure(attempt, static_cast<DWORD>(status));
    }
}

using CngObject = Owned<NCRYPT_HANDLE, NCryptFreeObject>;

void closeAlgorithm(BCRYPT_ALG_HANDLE handle) {
    BCryptCloseAlgorithmProvider(handle, 0);
}
using HashAlgorithm = Owned<BCRYPT_ALG_HANDLE, closeAlgorithm>;
using Hash = Owned<BCRYPT_HASH_HANDLE, BCryptDestroyHash>;

template <typename Step>
auto timed(const char* what, Step step) {
    const auto start = std::chrono::steady_clock::now();
    auto result = step();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::printf("  %-62s %6lld ms\n", what, static_cast<long long>(elapsed.count()));
    std::fflush(stdout);
    return result;
}

struct OtherProvider {};

// Wine's own CNG opens a provider of its own for every name.
void requireNamedProvider(const CngObject& provider) {
    std::wstring name(std::size(cngProviderName), L'\0');
    DWORD size = 0;
    if (NCryptGetProperty(provider.get(), NCRYPT_NAME_PROPERTY, reinterpret_cast<BYTE*>(name.data()),
                          static_cast<DWORD>(sizeof cngProviderName), &size, 0) != ERROR_SUCCESS ||
        std::wcscmp(name.c_str(), cngProviderName) != 0) {
        throw OtherProvider{};
    }
}

CngObject openProvider() {
    CngObject provider;
    requireStatus(NCryptOpenStorageProvider(provider.put(), cngProviderName, 0), "NCryptOpenStorageProvider");
    requireNamedProvider(provider);
    // The provider takes the PIN as a text of 8-bit characters.
    if (const char* pin = std::getenv("TALVIK_DEMO_PIN")) {
        requireStatus(
            NCryptSetProperty(provider.get(), NCRYPT_PIN_PROPERTY, reinterpret_cast<BYTE*>(const_cast<char*>(pin)),
                              static_cast<DWORD>(std::strlen(pin)) + 1, 0),
            "NCryptSetProperty(SmartCardPin)");
    }
    return provider;
}

CngObject openKey(const CngObject& provider, const std::wstring& name) {
    CngObject key;
    requireStatus(NCryptOpenKey(provider.get(), key.put(), name.c_str(), 0, 0), "NCryptOpenKey");
    return key;
}

// The token's first signing key of the algorithm.
std::optional<std::wstring> findKeyName(const CngObject& provider, const wchar_t* algorithm) {
    std::optional<std::wstring> found;
    void* state = nullptr;
    NCryptKeyName* entry = nullptr;
    while (!found && NCryptEnumKeys(provider.get(), nullptr, &entry, &state, 0) == ERROR_SUCCESS) {
        if (std::wstring(entry->pszAlgid) == algorithm && entry->dwLegacyKeySpec == AT_SIGNATURE) {
            found = entry->pszName;
        }
        NCryptFreeBuffer(entry);
    }
    if (state != nullptr) {
        NCryptFreeBuffer(state);
    }
    return found;
}

CngObject makeKey(const CngObject& provider, const wchar_t* algorithm) {
    CngObject key;
    requireStatus(NCryptCreatePersistedKey(provider.get(), key.put(), algorithm, nullptr, AT_SIGNATURE, 0),
                  "NCryptCreatePersistedKey");
    requireStatus(NCryptFinalizeKey(key.get(), 0), "NCryptFinalizeKey");
    return key;
}

CngObject keyFor(const CngObject& provider, const wchar_t* algorithm) {
    const std::optional<std::wstring> name = findKeyName(provider, algorithm);
    return name ? openKey(provider, *name) : makeKey(provider, algorithm);
}

Bytes digestOf(const fs::path& file) {
    HashAlgorithm algorithm;
    requireStatus(BCryptOpenAlgorithmProvider(algorithm.put(), BCRYPT_SHA256_ALGORITHM, nullptr, 0),
                  "BCryptOpenAlgorithmProvider");
    Hash hash;
    requireStatus(BCryptCreateHash(algorithm.get(), hash.put(), nullptr, 0, nullptr, 0, 0), "BCryptCreateHash");
    std::ifstream input(file, std::ios::binary);
    if (!input) {
        throw std::runtime_error("cannot read " + file.string());
    }
    Bytes chunk(1u << 20);
    while (input.read(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(chunk.size())),
           input.gcount() > 0) {
        requireStatus(BCryptHashData(hash.get(), chunk.data(), static_cast<ULONG>(input.gcount()), 0),
                      "BCryptHashData");
    }
    Bytes digest(32);
    requireStatus(BCryptFinishHash(hash.get(), digest.data(), static_cast<ULONG>(digest.size()), 0),
                  "BCryptFinishHash");
    return digest;
}

Bytes sign(const CngObject& key, Bytes digest, void* padding, DWORD flags) {
    Bytes signature(1024);
    DWORD size = 0;
    requireStatus(NCryptSignHash(key.get(), padding, digest.data(), static_cast<DWORD>(digest.size()), signature.data(),
                                 static_cast<DWORD>(signature.size()), &size, flags),
                  "NCryptSignHash");
    signature.resize(size);
    return signature;
}

Bytes signPss(const CngObject& key, const Bytes& digest) {
    BCRYPT_PSS_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM, static_cast<ULONG>(digest.size())};
    return sign(key, digest, &padding, NCRYPT_PAD_PSS_FLAG);
}

Bytes exportKey(const CngObject& key, const wchar_t* blobType) {
    DWORD size = 0;
    requireStatus(NCryptExportKey(key.get(), 0, blobType, nullptr, nullptr, 0, &size, 0), "NCryptExportKey");
    Bytes blob(size);
    requireStatus(NCryptExportKey(key.get(), 0, blobType, nullptr, blob.data(), size, &size, 0), "NCryptExportKey");
    return blob;
}

// An elliptic-curve key travels in the RSA blob, since the interface has no other: its DER form in the modulus' place.
Bytes ellipticCurvePublicKey(const CngObject& key) {
    const Bytes blob = exportKey(key, BCRYPT_RSAPUBLIC_BLOB);
    BCRYPT_RSAKEY_BLOB header;
    std::memcpy(&header, blob.data(), sizeof header);
    return {blob.end() - static_cast<std::ptrdiff_t>(header.cbModulus), blob.end()};
}

// One of r and s as a DER INTEGER, which has no needless leading zeros and is positive.
Bytes derInteger(const std::uint8_t* begin, const std::uint8_t* end) {
    begin = std::find_if(begin, end - 1, [](std::uint8_t byte) { return byte != 0; });
    Bytes integer{0x02, static_cast<std::uint8_t>(end - begin)};
    if (*begin >= 0x80) {
        ++integer[1];
        integer.push_back(0);
    }
    integer.insert(integer.end(), begin, end);
    return integer;
}

// CNG has r and s side by side, other programs a DER SEQUENCE of the two.
Bytes derSignature(const Bytes& sideBySide) {
    const std::uint8_t* const middle = sideBySide.data() + sideBySide.size() / 2;
    const Bytes r = derInteger(sideBySide.data(), middle);
    const Bytes s = derInteger(middle, sideBySide.data() + sideBySide.size());
    Bytes der{0x30, static_cast<std::uint8_t>(r.size() + s.size())};
    der.insert(der.end(), r.begin(), r.end());
    der.insert(der.end(), s.begin(), s.end());
    return der;
}

void run(const fs::path& file, const fs::path& out) {
    const CngObject provider = timed("NCryptOpenStorageProvider, with the PIN", openProvider);
    const Bytes digest = timed("BCrypt: SHA-256 of the file", [&] { return digestOf(file); });

    const CngObject rsaKey = timed("an RSA signing key of the token", [&] { return keyFor(provider, L"RSA"); });
    writeFile(out / "pss.sig", timed("NCryptSignHash: RSA-PSS", [&] { return signPss(rsaKey, digest); }));
    writeFile(out / "rsa-public.der", encode(RSA_CSP_PUBLICKEYBLOB, exportKey(rsaKey, LEGACY_RSAPUBLIC_BLOB).data()));

    const CngObject ecKey = timed("an ECDSA P-256 key of the token", [&] { return keyFor(provider, L"ECDSA_P256"); });
    writeFile(out / "ecdsa.sig",
              timed("NCryptSignHash: ECDSA P-256", [&] { return derSignature(sign(ecKey, digest, nullptr, 0)); }));
    writeFile(out / "ec-public.der", ellipticCurvePublicKey(ecKey));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) {
        std::fputs("usage: talvik_cng_demo FILE OUT\n", stderr);
        return 2;
    }
    try {
        run(argv[1], argv[2]);
    } catch (const OtherProvider&) {
        return 3;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "  %s\n", failure.what());
        return 1;
    }
    return 0;
}
