#include "request_command.h"

#include <memory>

#include "certificate_context.h"
#include "der_text.h"
#include "files.h"
#include "signing.h"
#include "status.h"
#include "system_text.h"
#include "text_rules.h"

namespace talvik_tool {
namespace {

using virtual_token::derElement;
using virtual_token::Status;
using virtual_token::TokenError;
using virtual_token::utf8;
using virtual_token::wide;

struct RequestArguments {
    TokenOption token;
    std::string key;
    std::string subject;
    std::vector<std::string> dns;
    std::vector<std::string> email;
    std::vector<std::string> usages;
    std::string out;
    bool der = false;
};

constexpr char oidExtensionRequest[] = "1.2.840.113549.1.9.14";
constexpr char oidSubjectAltName[] = "2.5.29.17";
constexpr char oidKeyUsage[] = "2.5.29.15";
constexpr char oidExtendedKeyUsage[] = "2.5.29.37";
constexpr unsigned char tagEmail = 0x81, tagDns = 0x82;  // GeneralName
constexpr unsigned char critical[] = {0x01, 0x01, 0xFF};

std::vector<std::string> usageNames() {
    std::vector<std::string> names;
    for (const auto& usage : certificateUsages) {
        names.emplace_back(usage.name);
    }
    return names;
}

Bytes encodedName(const std::string& text) {
    const std::wstring name = wide(text);
    Bytes der(4096);
    auto length = static_cast<DWORD>(der.size());
    const wchar_t* wrong = nullptr;
    if (name.empty() ||
        !CertStrToNameW(X509_ASN_ENCODING, name.c_str(),
                        CERT_X500_NAME_STR | CERT_NAME_STR_COMMA_FLAG | CERT_NAME_STR_ENABLE_UTF8_UNICODE_FLAG, nullptr,
                        der.data(), &length, &wrong)) {
        const std::string where = wrong != nullptr ? " at \"" + utf8(wrong) + "\"" : "";
        throw TokenError(Status::InvalidArgument,
                         "--subject: \"" + text + "\" is no name like \"O=Example, CN=Ann\"" + where);
    }
    der.resize(length);
    return der;
}

Bytes extension(const char* oid, bool isCritical, const Bytes& value) {
    return derSequenceOf({derObjectId(oid), isCritical ? Bytes(std::begin(critical), std::end(critical)) : Bytes(),
                          derElement(derOctetString, {value})});
}

Bytes alternativeNames(const RequestArguments& arguments) {
    std::vector<Bytes> names;
    const auto add = [&names](unsigned char tag, const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            names.push_back(derElement(tag, {virtual_token::viewOf(text)}));
        }
    };
    add(tagDns, arguments.dns);
    add(tagEmail, arguments.email);
    return names.empty() ? Bytes() : extension(oidSubjectAltName, false, derSequenceOf(names));
}

// DER drops the zero bits at the end.
Bytes bitString(unsigned char bits) {
    unsigned char unused = 0;
    while (unused < 7 && (bits >> unused & 1) == 0) {
        ++unused;
    }
    return {virtual_token::derBitString, 2, unused, bits};
}

std::vector<Bytes> usageExtensions(const std::vector<std::string>& wanted) {
    unsigned char bits = 0;
    std::vector<Bytes> extended;
    for (const auto& usage : certificateUsages) {
        if (std::find(wanted.begin(), wanted.end(), usage.name) == wanted.end()) {
            continue;
        }
        if (usage.oid != nullptr) {
            extended.push_back(derObjectId(usage.oid));
        } else {
            bits = static_cast<unsigned char>(bits | 0x80 >> usage.bit);
        }
    }
    return {bits == 0 ? Bytes() : extension(oidKeyUsage, true, bitString(bits)),
            extended.empty() ? Bytes() : extension(oidExtendedKeyUsage, false, derSequenceOf(extended))};
}

Bytes attributes(const RequestArguments& arguments) {
    std::vector<Bytes> extensions = usageExtensions(arguments.usages);
    extensions.push_back(alternativeNames(arguments));
    std::erase_if(extensions, [](const Bytes& each) { return each.empty(); });
    if (extensions.empty()) {
        return derElement(derExplicit0, {});
    }
    return derElement(derExplicit0,
                      {derSequenceOf({derObjectId(oidExtensionRequest), derSetOf({derSequenceOf(extensions)})})});
}

void request(const RequestArguments& arguments) {
    const Bytes subject = encodedName(arguments.subject);
    const Bytes asked = attributes(arguments);
    KeyOnToken signer = arguments.token.key(arguments.key);
    if ((signer.key.usage & TALVIK_USAGE_SIGN) == 0) {
        throw TokenError(Status::UsageForbidden, "--key: this key is for exchange alone and cannot sign its request");
    }
    const DigestType& digest = digestFor(signer.key, "");
    const Bytes info = derSequenceOf({derSmallInteger(0), subject, publicKeyInfoOf(signer.key), asked});
    arguments.token.login(signer.device);
    const Bytes signature = signatureOver(signer, digestOf(digest, info));
    const unsigned char noUnusedBits[] = {0};
    writeEncoded(arguments.out, arguments.der, "CERTIFICATE REQUEST",
                 derSequenceOf({info, signatureAlgorithm(signer.key, digest, SignatureOf::Request),
                                derElement(virtual_token::derBitString, {noUnusedBits, signature})}));
}

}  // namespace

void addRequestCommand(CLI::App& app) {
    CLI::App* command = app.add_subcommand("request", "Write a certificate request, signed by a key of a token");
    const auto arguments = std::make_shared<RequestArguments>();
    arguments->token.addTo(*command);
    command->add_option("--key", arguments->key, "Container or label (the only key if not given)");
    command->add_option("--subject", arguments->subject, "Name of the owner: \"O=Example, CN=Ann\"")->required();
    command->add_option("--dns", arguments->dns, "Alternative name of a host; may be repeated")->check(wrongAsciiName);
    command->add_option("--email", arguments->email, "Alternative name, a mail address; may be repeated")
        ->check(wrongAsciiName);
    command->add_option("--usage", arguments->usages, "What the certificate shall be for, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(usageNames()));
    CLI::Option* out = command->add_option("--out", arguments->out, "File to write (standard output if not given)");
    command->add_flag("--der", arguments->der, "DER instead of PEM; needs --out")->needs(out);
    arguments->token.pin.addTo(*command, "pin", "User PIN");
    command->callback([arguments] { request(*arguments); });
}

}  // namespace talvik_tool
