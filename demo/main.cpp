// talvik_demo FILE STATE OUT
//
// Enrols a signing key and an exchange key on the attached token where there are none yet, signs FILE with the one and
// opens an envelope that was made for the other. Writes to the folder OUT the detached signature (signature.p7s), the
// signer's chain (chain.p7b) and what was in the envelope (opened); to the folder STATE the certificate request
// (request.der), the exchange key (exchange-key.der) and both certificates (signer.der, recipient.der).
//
// Whoever started it does what it asks for and then writes a line to its standard input:
//   >issue signer      a certificate for request.der, to STATE/certificate.der
//   >issue recipient   one for the holder of request.der and exchange-key.der, to STATE/certificate.der
//   >encrypt           FILE, enveloped for recipient.der, to OUT/envelope.p7m
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
#include "envelope.h"

namespace {

using namespace demo;
namespace fs = std::filesystem;

constexpr char subjectName[] = "CN=Talvik Demo Signer, O=Talvik Demonstration";

// Runs one step, then accounts for it in one line.
template <typename Step>
auto timed(const std::string& what, Step step) {
    const auto start = std::chrono::steady_clock::now();
    auto result = step();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::printf("  %-62s %6lld ms\n", what.c_str(), static_cast<long long>(elapsed.count()));
    std::fflush(stdout);
    return result;
}

void ask(const char* request) {
    std::puts(request);
    std::fflush(stdout);
    std::string answer;
    if (!std::getline(std::cin, answer)) {
        throw std::runtime_error(std::string("no answer to ") + request);
    }
}

struct Purpose {
    DWORD keySpec;
    ALG_ID algorithm;
    const char* name;
    const char* issue;
    const char* certificateFile;
};
constexpr Purpose signing = {AT_SIGNATURE, CALG_RSA_SIGN, "signing", ">issue signer", "signer.der"};
constexpr Purpose exchange = {AT_KEYEXCHANGE, CALG_RSA_KEYX, "exchange", ">issue recipient", "recipient.der"};

// A key of the token, and its certificate.
struct Identity {
    Context context;
    Bytes certificate;
};

Key keyFor(const Context& context, const Purpose& purpose) {
    const std::string name = purpose.name;
    auto found = timed("look for the " + name + " key on the token", [&] { return findKey(context, purpose.keySpec); });
    if (found) {
        std::puts("  (found: no new key is made)");
        return std::move(*found);
    }
    return timed("CryptGenKey: generate an RSA-2048 " + name + " key on the token",
                 [&] { return generateKey(context, purpose.algorithm); });
}

// An exchange key signs nothing, so its certificate goes to the holder of the signing key, who asked before.
void writeRequest(const Context& context, const Purpose& purpose, const fs::path& state) {
    if (purpose.keySpec == AT_SIGNATURE) {
        writeFile(state / "request.der", timed("PKCS#10 request, signed by that key on the token",
                                               [&] { return certificateRequest(context, subjectName); }));
    } else {
        writeFile(state / "exchange-key.der",
                  timed("CryptExportKey: its public half", [&] { return publicKey(context, purpose.keySpec); }));
    }
}

Bytes enrol(const Context& context, const Key& key, const Purpose& purpose, const fs::path& state) {
    writeRequest(context, purpose, state);
    ask(purpose.issue);
    const Bytes issued = readFile(state / "certificate.der");
    if (!certifiesKey(context, purpose.keySpec, issued)) {
        throw std::runtime_error("the issued certificate is for another key");
    }

    timed("CryptSetKeyParam: store the certificate on the token", [&] {
        storeCertificate(key, issued);
        return true;
    });
    Bytes stored = timed("CryptGetKeyParam: read the certificate back", [&] { return storedCertificate(key); });
    if (stored != issued) {
        throw std::runtime_error("the token returned another certificate than was stored");
    }
    std::printf("  (%zu bytes, identical)\n", stored.size());
    return stored;
}

Bytes certificateFor(const Context& context, const Key& key, const Purpose& purpose, const fs::path& state) {
    Bytes stored = timed("look for its certificate on the token", [&] { return storedCertificate(key); });
    if (stored.empty()) {
        return enrol(context, key, purpose, state);
    }
    if (!certifiesKey(context, purpose.keySpec, stored)) {
        throw std::runtime_error("the stored certificate is for another key");
    }
    std::puts("  (found: no new certificate is asked for)");
    return stored;
}

Identity identityFor(const Purpose& purpose, const fs::path& state) {
    Context context = timed("CryptAcquireContext", [&] { return acquireContext(purpose.keySpec); });
    if (const char* pin = std::getenv("TALVIK_DEMO_PIN"); pin && purpose.keySpec == AT_SIGNATURE) {
        timed("CryptSetProvParam: hand over the PIN", [&] {
            presentPin(context, pin);
            return true;
        });
    }
    const Key key = keyFor(context, purpose);
    Bytes certificate = certificateFor(context, key, purpose, state);
    writeFile(state / purpose.certificateFile, certificate);
    return {std::move(context), std::move(certificate)};
}

void run(const fs::path& file, const fs::path& state, const fs::path& out) {
    const Identity signer = identityFor(signing, state);
    writeFile(out / "signature.p7s", timed("CryptMsg*: detached CMS signature, SHA-256, on the token",
                                           [&] { return signFile(signer.context, signer.certificate, file); }));
    writeFile(out / "chain.p7b", timed("CryptGetProvParam: the signer's chain, from the token",
                                       [&] { return certificateChain(signer.context); }));

    const Identity recipient = identityFor(exchange, state);
    ask(">encrypt");
    if (!systemKnowsAes()) {
        teachSystemAes();
        std::puts("  (this CRYPT32 knows no AES: the program adds the import of the content key)");
    }
    writeFile(out / "opened", timed("CryptMsg*: open the envelope, its key decrypted on the token",
                                    [&] { return openEnvelope(recipient.context, readFile(out / "envelope.p7m")); }));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) {
        std::fputs("usage: talvik_demo FILE STATE OUT\n", stderr);
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
