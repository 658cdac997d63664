// talvik_demo FILE SIGNATURE FOLDER
//
// Enrols a signing key on the attached token where there is none yet, and signs FILE with it. SIGNATURE receives the
// detached signature, FOLDER the certificate request (request.der) and the signer's certificate (signer.der); the
// certification authority's answer is expected there as certificate.der. When it is needed, the line ">issue" is
// written to standard output and one line is awaited on standard input.
//
// TALVIK_DEMO_PIN, when set, is the PIN that the program gives to the provider; otherwise the provider asks a person
// for it, in its own dialog.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "detached_signature.h"
#include "enrolment.h"

namespace {

using namespace demo;
namespace fs = std::filesystem;

constexpr char subjectName[] = "CN=Talvik Demo Signer, O=Talvik Demonstration";

// Runs one step, then accounts for it in one line.
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

void awaitCertificationAuthority() {
    std::puts(">issue");
    std::fflush(stdout);
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        throw std::runtime_error("the certification authority did not answer");
    }
}

Key signingKey(const Context& context) {
    auto found = timed("look for a signing key on the token", [&] { return findSigningKey(context); });
    if (found) {
        std::puts("  (found: no new key is made)");
        return std::move(*found);
    }
    return timed("CryptGenKey: generate an RSA-2048 key on the token", [&] { return generateSigningKey(context); });
}

Bytes enrol(const Context& context, const Key& key, const fs::path& folder) {
    const Bytes request = timed("PKCS#10 request, signed by that key on the token",
                                [&] { return certificateRequest(context, subjectName); });
    writeFile(folder / "request.der", request);
    awaitCertificationAuthority();
    const Bytes issued = readFile(folder / "certificate.der");
    if (!certifiesSigningKey(context, issued)) {
        throw std::runtime_error("the issued certificate is for another key");
    }

    timed("CryptSetKeyParam: store the certificate on the token", [&] {
        storeCertificate(key, issued);
        return true;
    });
    const Bytes stored = timed("CryptGetKeyParam: read the certificate back", [&] { return storedCertificate(key); });
    if (stored != issued) {
        throw std::runtime_error("the token returned another certificate than was stored");
    }
    std::printf("  (%zu bytes, identical)\n", stored.size());
    return stored;
}

Bytes signerCertificate(const Context& context, const Key& key, const fs::path& folder) {
    const Bytes stored = timed("look for its certificate on the token", [&] { return storedCertificate(key); });
    if (stored.empty()) {
        return enrol(context, key, folder);
    }
    if (!certifiesSigningKey(context, stored)) {
        throw std::runtime_error("the stored certificate is for another key");
    }
    std::puts("  (found: no new certificate is asked for)");
    return stored;
}

void run(const fs::path& file, const fs::path& signature, const fs::path& folder) {
    const Context context = timed("CryptAcquireContext", acquireContext);
    if (const char* pin = std::getenv("TALVIK_DEMO_PIN")) {
        timed("CryptSetProvParam: hand over the PIN", [&] {
            presentPin(context, pin);
            return true;
        });
    }
    const Key key = signingKey(context);
    const Bytes certificate = signerCertificate(context, key, folder);
    writeFile(folder / "signer.der", certificate);
    writeFile(signature, timed("CryptMsg*: detached CMS signature, SHA-256, on the token",
                               [&] { return signFile(context, certificate, file); }));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) {
        std::fputs("usage: talvik_demo FILE SIGNATURE FOLDER\n", stderr);
        return 2;
    }
    try {
        run(argv[1], argv[2], argv[3]);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "  %s\n", failure.what());
        return 1;
    }
    return 0;
}
