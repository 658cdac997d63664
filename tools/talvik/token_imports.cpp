// Keys and certificates of virtual tokens: in from files, out to files, and gone.
#include <algorithm>
#include <iostream>

#include "certificate.h"
#include "certificate_context.h"
#include "files.h"
#include "output.h"
#include "pkcs12.h"
#include "private_key_file.h"
#include "status.h"
#include "text_rules.h"
#include "token_names.h"

namespace talvik_tool {
namespace {

using virtual_token::CertificateObject;
using virtual_token::GeneratedKey;
using virtual_token::KeyPairObject;
using virtual_token::Status;
using virtual_token::Token;
using virtual_token::TokenError;

constexpr char certificateLabel[] = "CERTIFICATE";

void requireSize(ByteView der, const std::string& file) {
    if (der.size() > sizeof(TalvikCertificate::der)) {
        throw TokenError(Status::BadCertificate, file + ": a certificate of " + std::to_string(der.size()) +
                                                     " bytes; a token takes at most 3072");
    }
}

Bytes readOneCertificate(const std::string& file) {
    const SecretBytes der = readObjects(file).front().der;
    if (!parseCertificate(der)) {
        throw TokenError(Status::BadCertificate, file + ": this is no certificate in DER or PEM");
    }
    requireSize(der, file);
    return Bytes(der.begin(), der.end());
}

void importCertificate(const TokenArguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    CertificateObject certificate;
    certificate.der = readOneCertificate(arguments.file);
    certificate.label = arguments.label;
    if (!arguments.key.empty()) {
        certificate.keyId = keyNamed(*token->snapshot(), arguments.key).id;
    }
    token->importCertificate(arguments.pin.read(), std::move(certificate));
}

void exportCertificate(const TokenArguments& arguments) {
    const virtual_token::SnapshotPointer token = tokenOf(arguments)->snapshot();
    const std::string& name = arguments.certificate.empty() ? arguments.key : arguments.certificate;
    writeEncoded(arguments.file, arguments.der, certificateLabel, certificateNamed(*token, name).der);
}

std::uint32_t usageNamed(const std::string& usage) {
    return usage.empty()         ? 0
           : usage == "sign"     ? TALVIK_USAGE_SIGN
           : usage == "exchange" ? TALVIK_USAGE_EXCHANGE
                                 : TALVIK_USAGE_BOTH;
}

// Before the PIN is asked for: nothing of what can be told now costs an attempt or leaves half of it done.
void requireNewKey(const virtual_token::Snapshot& token, const GeneratedKey& key, const std::string& file) {
    const auto& keyPairs = token.objects->objects().keyPairs;
    if (std::ranges::find(keyPairs, key.publicKey, &KeyPairObject::publicKey) != keyPairs.end()) {
        throw TokenError(Status::AlreadyExists, file + ": the token holds this key already");
    }
}

AskPassword passwordOf(const TokenArguments& arguments) {
    return [&arguments] { return arguments.password.readAny(); };
}

void importKey(const TokenArguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    const auto now = token->attachedSnapshot();
    const GeneratedKey key = readPrivateKeyFile(arguments.file, passwordOf(arguments));
    requireNewKey(*now, key, arguments.file);
    print(virtual_token::toHex(
        token->importKeyPair(arguments.pin.read(), key, usageNamed(arguments.usage), arguments.label, {}).id));
}

Pkcs12Content readPkcs12File(const TokenArguments& arguments) {
    const SecretBytes content = readWholeFile(arguments.file);
    try {
        return readPkcs12(content, arguments.password.readAny());
    } catch (const TokenError& error) {
        throw TokenError(error.status(), arguments.file + ": " + error.what());
    }
}

void importPkcs12(const TokenArguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    const auto now = token->attachedSnapshot();
    const Pkcs12Content content = readPkcs12File(arguments);
    for (const Bytes& certificate : content.certificates) {
        virtual_token::readCertificate(certificate);
        requireSize(certificate, arguments.file);
    }
    requireNewKey(*now, content.key, arguments.file);
    print(virtual_token::toHex(token
                                   ->importKeyPair(arguments.pin.read(), content.key, usageNamed(arguments.usage),
                                                   arguments.label, content.certificates)
                                   .id));
}

void deleteKey(const TokenArguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    const auto id = keyNamed(*token->snapshot(), arguments.key).id;
    token->deleteKeyPair(arguments.pin.read(), id);
}

void deleteCertificate(const TokenArguments& arguments) {
    const std::shared_ptr<Token> token = tokenOf(arguments);
    const Bytes der = certificateNamed(*token->snapshot(), arguments.certificate).der;
    token->deleteCertificate(arguments.pin.read(), der);
}

void addKeyOptions(CLI::App& command, const SharedTokenArguments& arguments, const char* what) {
    command.add_option("file", arguments->file, what)->required();
    command.add_option("--label", arguments->label, "Label of the key")->check(wrongLabel);
    command.add_option("--usage", arguments->usage, "sign, exchange or both (all that the type can if not given)")
        ->check(CLI::IsMember({"sign", "exchange", "both"}));
    arguments->password.addTo(command, "password", "Password of the file");
    arguments->pin.addTo(command, "pin", "User PIN");
}

}  // namespace

void addTokenObjectCommands(CLI::App& family, const SharedTokenArguments& arguments) {
    CLI::App* import = addTokenCommand(family, arguments, "import-cert", "Store a certificate", importCertificate);
    import->add_option("file", arguments->file, "Certificate, PEM or DER")->required();
    import->add_option("--key", arguments->key, "Key pair, by identifier or label (by public key if not given)");
    import->add_option("--label", arguments->label, "Label of the certificate")->check(wrongLabel);
    arguments->pin.addTo(*import, "pin", "User PIN");

    CLI::App* exported = addTokenCommand(family, arguments, "export-cert", "Write a certificate", exportCertificate);
    CLI::Option* key = exported->add_option("--key", arguments->key, "Its key pair, by identifier or label");
    exported->add_option("--cert", arguments->certificate, "Thumbprint, label or subject")->excludes(key);
    exported->add_option("--out", arguments->file, "File to write (standard output if not given)");
    exported->add_flag("--der", arguments->der, "DER instead of PEM; needs --out")->needs("--out");

    addKeyOptions(*addTokenCommand(family, arguments, "import-key", "Take in a private key", importKey), arguments,
                  "Private key, PKCS #8, PEM or DER");
    addKeyOptions(
        *addTokenCommand(family, arguments, "import-p12", "Take in a key with its certificates", importPkcs12),
        arguments, "PKCS #12 file (.p12, .pfx)");

    CLI::App* deletion =
        addTokenCommand(family, arguments, "delete-key", "Delete a key pair and its certificate", deleteKey);
    deletion->add_option("key", arguments->key, "Key pair, by identifier or label")->required();
    arguments->pin.addTo(*deletion, "pin", "User PIN");

    CLI::App* removal = addTokenCommand(family, arguments, "delete-cert", "Delete a certificate, of a key or of none",
                                        deleteCertificate);
    removal->add_option("certificate", arguments->certificate, "Thumbprint, label or subject, or its key")->required();
    arguments->pin.addTo(*removal, "pin", "User PIN");
}

}  // namespace talvik_tool
