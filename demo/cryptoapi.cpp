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

}  // namespace

Failure::Failure(const std::string& attempt, DWORD error) : std::runtime_error(describe(attempt, error)) {}

void require(BOOL succeeded, const char* attempt) {
    if (!succeeded) {
        throw Failure(attempt, GetLastError());
    }
}

Context acquireContext() {
    Context context;
    require(CryptAcquireContextA(context.put(), nullptr, providerName, PROV_RSA_FULL, 0), "CryptAcquireContext");
    return context;
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
