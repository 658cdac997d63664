#include "cryptoapi.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace demo {

namespace {

std::string describe(const std::string& attempt, DWORD error) {
    char code[32];
    std::snprintf(code, sizeof code, " (error 0x%08lX)", error);
    return attempt + " failed" + code;
}

Context acquire(const char* container) {
    Context context;
    require(CryptAcquireContextA(context.put(), container, providerName, PROV_RSA_FULL, 0), "CryptAcquireContext");
    return context;
}

}  // namespace

Failure::Failure(const std::string& attempt, DWORD error) : std::runtime_error(describe(attempt, error)) {}

void require(BOOL succeeded, const char* attempt) {
    if (!succeeded) {
        throw Failure(attempt, GetLastError());
    }
}

namespace {

// Names of the token's key containers.
std::vector<std::string> containers() {
    const Context context = acquire(nullptr);
    std::vector<std::string> names;
    for (DWORD which = CRYPT_FIRST;; which = CRYPT_NEXT) {
        char name[MAX_PATH];
        DWORD length = sizeof name;
        if (!CryptGetProvParam(context.get(), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &length, which)) {
            require(GetLastError() == ERROR_NO_MORE_ITEMS, "CryptGetProvParam(PP_ENUMCONTAINERS)");
            return names;
        }
        names.emplace_back(name);
    }
}

}  // namespace

Context acquireContext(DWORD keySpec) {
    for (const std::string& name : containers()) {
        Context context = acquire(name.c_str());
        DWORD found = 0;
        DWORD length = sizeof found;
        require(CryptGetProvParam(context.get(), PP_KEYSPEC, reinterpret_cast<BYTE*>(&found), &length, 0),
                "CryptGetProvParam(PP_KEYSPEC)");
        if (found == keySpec) {
            return context;
        }
    }
    return acquire(nullptr);
}

void presentPin(const Context& context, const char* pin) {
    require(CryptSetProvParam(context.get(), PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(pin), 0),
            "CryptSetProvParam(PP_SIGNATURE_PIN)");
}

Bytes encode(LPCSTR type, const void* structure) {
    DWORD length = 0;
    require(CryptEncodeObject(X509_ASN_ENCODING, type, structure, nullptr, &length), "CryptEncodeObject");
    Bytes der(length);
    require(CryptEncodeObject(X509_ASN_ENCODING, type, structure, der.data(), &length), "CryptEncodeObject");
    der.resize(length);
    return der;
}

Certificate parseCertificate(const Bytes& der) {
    Certificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    require(certificate.get() != nullptr, "reading the certificate");
    return certificate;
}

Bytes content(const Message& message) {
    DWORD length = 0;
    require(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &length), "CryptMsgGetParam");
    Bytes der(length);
    require(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, der.data(), &length), "CryptMsgGetParam");
    der.resize(length);
    return der;
}

Bytes readFile(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + std::filesystem::path(path).string());
    }
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void writeFile(const std::wstring& path, const Bytes& content) {
    std::ofstream file(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + std::filesystem::path(path).string());
    }
}

}  // namespace demo
