#include "private_key_file.h"

#include <algorithm>

#include "der_text.h"
#include "key_import.h"
#include "status.h"

namespace talvik_tool {
namespace {

using namespace virtual_token;

// EncryptedPrivateKeyInfo begins with an AlgorithmIdentifier where PrivateKeyInfo has its version.
bool isEncrypted(ByteView der) {
    return DerReader(der).enter(derSequence).nextIs(derSequence);
}

GeneratedKey readKey(const EncodedObject& object, const AskPassword& password) {
    if (!object.label.empty() && object.label != "PRIVATE KEY" && object.label != "ENCRYPTED PRIVATE KEY") {
        throw TokenError(Status::BadKey, "it holds a \"" + object.label +
                                             "\", not a PKCS #8 private key; openssl pkcs8 -topk8 converts others");
    }
    if (!isEncrypted(object.der)) {
        return readPrivateKeyInfo(object.der);
    }
    DerReader info = DerReader(object.der).enter(derSequence);
    const ByteView algorithm = info.read().whole;
    return readPrivateKeyInfo(decryptWithPassword(algorithm, info.read(derOctetString), password()));
}

}  // namespace

GeneratedKey readPrivateKeyFile(const std::string& name, const AskPassword& password) {
    // An "EC PARAMETERS" block may stand before the key, a certificate before or after.
    const std::vector<EncodedObject> objects = readObjects(name);
    const auto isKey = [](const EncodedObject& each) { return each.label.find("PRIVATE KEY") != std::string::npos; };
    const auto found = std::ranges::find_if(objects, isKey);
    try {
        return readKey(found == objects.end() ? objects.front() : *found, password);
    } catch (const TokenError& error) {
        const bool unreadable = error.status() == Status::BadData;
        throw TokenError(unreadable ? Status::BadKey : error.status(),
                         name + ": " + (unreadable ? "this is no PKCS #8 private key in DER or PEM" : error.what()));
    }
}

}  // namespace talvik_tool
