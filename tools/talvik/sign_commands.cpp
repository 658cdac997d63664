#include "sign_commands.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "certificate_context.h"
#include "cms.h"
#include "files.h"
#include "output.h"
#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::systemErrorText;
using virtual_token::TokenError;
using Json = nlohmann::ordered_json;

struct SignArguments {
    TokenOption token;
    std::string file;
    std::string key;
    std::string digest;
    std::string out;
    bool attached = false;
    bool pem = false;
};

struct VerifyArguments {
    std::string message;
    std::string content;
    std::string out;
    std::string authorities;
    bool json = false;
};

// The certificate of the key first, then its issuers as far as the token holds them.
std::vector<Bytes> certificatesFor(const KeyOnToken& signer) {
    std::vector<Bytes> pool;
    std::optional<Bytes> own;
    for (const TalvikCertificate& certificate : signer.device.certificates()) {
        const ByteView der = derOf(certificate);
        pool.emplace_back(der.begin(), der.end());
        if (belongTogether(certificate, signer.key)) {
            own = pool.back();
        }
    }
    if (!own || !parseCertificate(*own)) {
        throw TokenError(Status::NoSuchObject,
                         "--key: the token holds no certificate for this key. To get one: "
                         "talvik request, then talvik certs import");
    }
    return chainOf(*own, pool);
}

void sign(const SignArguments& arguments) {
    KeyOnToken signer = arguments.token.key(arguments.key);
    if ((signer.key.usage & TALVIK_USAGE_SIGN) == 0) {
        throw TokenError(Status::UsageForbidden, "--key: this key is for exchange alone and does not sign");
    }
    const std::vector<Bytes> certificates = certificatesFor(signer);
    const DigestType& digest = digestFor(signer.key, arguments.digest);
    SecretBytes content;
    std::optional<ByteView> attached;
    if (arguments.attached) {
        content = readWholeFile(arguments.file);
        attached = content;
    }
    const Bytes contentDigest = attached ? digestOf(digest, *attached) : digestOfFile(digest, arguments.file);
    arguments.token.login(signer.device);
    writeEncoded(arguments.out, !arguments.pem, "CMS",
                 signedMessage(signer, digest, contentDigest, attached, certificates));
}

// --- verify ---

struct FreeChain {
    void operator()(const CERT_CHAIN_CONTEXT* chain) const { CertFreeCertificateChain(chain); }
};

Store memoryStore(const std::vector<Bytes>& certificates) {
    Store store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    for (const Bytes& der : certificates) {
        CertAddEncodedCertificateToStore(store.get(), X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()),
                                         CERT_STORE_ADD_ALWAYS, nullptr);
    }
    return store;
}

std::vector<Bytes> certificatesIn(const std::string& name) {
    std::vector<Bytes> certificates;
    for (const EncodedObject& object : readObjects(name)) {
        if (!parseCertificate(object.der)) {
            throw TokenError(Status::BadCertificate, name + ": this is no certificate");
        }
        certificates.emplace_back(object.der.begin(), object.der.end());
    }
    return certificates;
}

constexpr struct {
    DWORD bit;
    const char* text;
} chainErrors[] = {
    {CERT_TRUST_IS_NOT_TIME_VALID, "a certificate of the chain has expired or is not yet valid"},
    {CERT_TRUST_IS_REVOKED, "a certificate of the chain has been revoked"},
    {CERT_TRUST_IS_NOT_SIGNATURE_VALID, "a certificate of the chain was not signed by its issuer"},
    {CERT_TRUST_IS_NOT_VALID_FOR_USAGE, "a certificate of the chain is not for this use"},
    {CERT_TRUST_IS_PARTIAL_CHAIN, "an issuer is missing"},
    {CERT_TRUST_IS_UNTRUSTED_ROOT, "its root is not trusted"},
};

bool endsIn(const CERT_CHAIN_CONTEXT& chain, const std::vector<Bytes>& authorities) {
    const CERT_SIMPLE_CHAIN& path = *chain.rgpChain[0];
    const ByteView root = derOf(*path.rgpElement[path.cElement - 1]->pCertContext);
    return std::ranges::any_of(authorities, [root](const Bytes& each) { return std::ranges::equal(each, root); });
}

// Empty when the chain of `certificate` ends in one of `authorities`, or, without them, in a root that this user
// trusts.
std::string distrustOf(const Bytes& certificate, std::vector<Bytes> helpers, const std::vector<Bytes>& authorities) {
    const Certificate parsed = parseCertificate(certificate);
    helpers.insert(helpers.end(), authorities.begin(), authorities.end());
    const Store store = memoryStore(helpers);
    CERT_CHAIN_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    const CERT_CHAIN_CONTEXT* built = nullptr;
    if (!parsed ||
        !CertGetCertificateChain(nullptr, parsed.get(), nullptr, store.get(), &parameters, 0, nullptr, &built)) {
        return "its chain cannot be built: " + systemErrorText(GetLastError());
    }
    const std::unique_ptr<const CERT_CHAIN_CONTEXT, FreeChain> chain(built);
    DWORD status = chain->TrustStatus.dwErrorStatus;
    if (!authorities.empty() && endsIn(*chain, authorities)) {
        status &= ~static_cast<DWORD>(CERT_TRUST_IS_UNTRUSTED_ROOT);
    } else if (!authorities.empty()) {
        status |= CERT_TRUST_IS_UNTRUSTED_ROOT;
    }
    for (const auto& error : chainErrors) {
        if ((status & error.bit) != 0) {
            return error.text;
        }
    }
    return status == 0 ? "" : "its chain has the status " + systemErrorText(status).substr(0, 10);
}

Bytes contentDigestOf(const SignedMessage& message, const DigestType& digest, const std::string& file) {
    return message.content ? digestOf(digest, *message.content) : digestOfFile(digest, file);
}

Json verified(const MessageSigner& signer, const SignedMessage& message, const VerifyArguments& arguments) {
    if (signer.digest == nullptr) {
        throw TokenError(Status::Unsupported,
                         arguments.message + ": signed with another digest than SHA-256, 384 or 512");
    }
    verifySignature(signer, contentDigestOf(message, *signer.digest, arguments.content));
    const std::string distrust =
        distrustOf(signer.certificate, message.certificates,
                   arguments.authorities.empty() ? std::vector<Bytes>() : certificatesIn(arguments.authorities));
    const Certificate certificate = parseCertificate(signer.certificate);
    if (!distrust.empty()) {
        throw TokenError(Status::BadCertificate, "the signature is valid, but its signer " +
                                                     (certificate ? subjectOf(*certificate) + " " : "") +
                                                     "is not trusted: " + distrust);
    }
    return {{"signer", subjectOf(*certificate)},
            {"issuer", issuerOf(*certificate)},
            {"digest", signer.digest->name},
            {"claimedTime", signer.signingTime}};
}

void verify(const VerifyArguments& arguments) {
    const SignedMessage message = readSignedMessage(readObjects(arguments.message).front().der);
    if (!message.content && arguments.content.empty()) {
        throw TokenError(Status::InvalidArgument,
                         "--content: the signature is detached; name the file that was signed");
    }
    if (message.content && !arguments.content.empty()) {
        throw TokenError(Status::InvalidArgument, "--content: the message holds its content; to see it: --out FILE");
    }
    Json signers = Json::array();
    for (const MessageSigner& signer : message.signers) {
        signers.push_back(verified(signer, message, arguments));
    }
    if (!arguments.out.empty() && message.content) {
        writeWholeFile(arguments.out, *message.content);
    }
    if (arguments.json) {
        printJson(signers);
        return;
    }
    for (const Json& signer : signers) {
        print("Valid: signed by " + signer.at("signer").get<std::string>() + ", issued by " +
              signer.at("issuer").get<std::string>() + ", " + signer.at("digest").get<std::string>());
    }
}

void addSign(CLI::App& app) {
    CLI::App* command = app.add_subcommand("sign", "Sign a file with a key of a token: CMS");
    const auto arguments = std::make_shared<SignArguments>();
    arguments->token.addTo(*command);
    command->add_option("file", arguments->file, "File to sign")->required();
    command->add_option("--key", arguments->key, "Container or label (the only key if not given)");
    command->add_option("--out", arguments->out, "Signature to write: FILE.p7s")->required();
    command->add_flag("--attached", arguments->attached, "Put the file into the signed message");
    command->add_flag("--pem", arguments->pem, "PEM instead of DER");
    command->add_option("--digest", arguments->digest, "sha256, sha384 or sha512 (what goes with the key if not given)")
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(digestNames), std::end(digestNames))));
    arguments->token.pin.addTo(*command, "pin", "User PIN");
    command->callback([arguments] { sign(*arguments); });
}

void addVerify(CLI::App& app) {
    CLI::App* command = app.add_subcommand("verify", "Verify a CMS signature; needs no token");
    const auto arguments = std::make_shared<VerifyArguments>();
    command->add_option("signature", arguments->message, "Signed message, DER or PEM")->required();
    command->add_option("--content", arguments->content, "The file that a detached signature is for");
    command->add_option("--ca", arguments->authorities,
                        "Trust the certificates of this file, instead of those that the user trusts");
    command->add_option("--out", arguments->out, "Write the content of an attached signature, once it is verified");
    command->add_flag("--json", arguments->json, "As JSON");
    command->callback([arguments] { verify(*arguments); });
}

}  // namespace

void addSignCommands(CLI::App& app) {
    addSign(app);
    addVerify(app);
}

}  // namespace talvik_tool
