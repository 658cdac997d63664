#include "envelope.h"

#include <algorithm>

namespace demo {

namespace {

char aes256Cbc[] = "2.16.840.1.101.3.4.1.42";

// The vector that an AES content key is used with: an OCTET STRING.
Bytes vectorOf(const CRYPT_ALGORITHM_IDENTIFIER& algorithm) {
    constexpr std::size_t header = 2;
    constexpr std::size_t blockSize = 16;
    const CRYPT_OBJID_BLOB& der = algorithm.Parameters;
    if (der.cbData != header + blockSize || der.pbData[0] != 0x04 || der.pbData[1] != blockSize) {
        return {};
    }
    return Bytes(der.pbData + header, der.pbData + der.cbData);
}

// The key transport's ciphertext, most significant byte first in a message, as a blob of CryptoAPI's.
Bytes simpleBlob(ALG_ID algorithm, const CRYPT_DATA_BLOB& ciphertext) {
    const PUBLICKEYSTRUC header{SIMPLEBLOB, CUR_BLOB_VERSION, 0, algorithm};
    const ALG_ID transport = CALG_RSA_KEYX;
    Bytes blob(sizeof header + sizeof transport + ciphertext.cbData);
    auto* const at = std::copy_n(reinterpret_cast<const std::uint8_t*>(&header), sizeof header, blob.data());
    std::copy_n(reinterpret_cast<const std::uint8_t*>(&transport), sizeof transport, at);
    std::reverse_copy(ciphertext.pbData, ciphertext.pbData + ciphertext.cbData, at + sizeof transport);
    return blob;
}

// What a CRYPT32 that knows AES does with a recipient's content key.
BOOL WINAPI importAesKey(CRYPT_ALGORITHM_IDENTIFIER* algorithm, CMSG_CTRL_KEY_TRANS_DECRYPT_PARA* recipient, DWORD,
                         void*, HCRYPTKEY* contentKey) {
    const Bytes vector = vectorOf(*algorithm);
    const Bytes blob = simpleBlob(CALG_AES_256, recipient->pKeyTrans->EncryptedKey);
    Key exchangeKey;
    Key key;
    if (vector.empty() || !CryptGetUserKey(recipient->hCryptProv, recipient->dwKeySpec, exchangeKey.put()) ||
        !CryptImportKey(recipient->hCryptProv, blob.data(), static_cast<DWORD>(blob.size()), exchangeKey.get(), 0,
                        key.put()) ||
        !CryptSetKeyParam(key.get(), KP_IV, vector.data(), 0)) {
        return FALSE;
    }
    *contentKey = std::exchange(*key.put(), HCRYPTKEY{});
    return TRUE;
}

}  // namespace

bool systemKnowsAes() {
    const PCCRYPT_OID_INFO info = CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, aes256Cbc, CRYPT_ENCRYPT_ALG_OID_GROUP_ID);
    return info != nullptr;
}

void teachSystemAes() {
    const CRYPT_OID_FUNC_ENTRY entry{aes256Cbc, reinterpret_cast<void*>(importAesKey)};
    require(CryptInstallOIDFunctionAddress(nullptr, X509_ASN_ENCODING, CMSG_OID_IMPORT_KEY_TRANS_FUNC, 1, &entry, 0),
            "CryptInstallOIDFunctionAddress");
}

Bytes openEnvelope(const Context& context, const Bytes& envelope) {
    const Message message(CryptMsgOpenToDecode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, 0, nullptr, nullptr));
    require(message.get() != nullptr, "CryptMsgOpenToDecode");
    require(CryptMsgUpdate(message.get(), envelope.data(), static_cast<DWORD>(envelope.size()), TRUE),
            "CryptMsgUpdate");
    CMSG_CTRL_DECRYPT_PARA recipient{};
    recipient.cbSize = sizeof recipient;
    recipient.hCryptProv = context.get();
    recipient.dwKeySpec = AT_KEYEXCHANGE;
    require(CryptMsgControl(message.get(), 0, CMSG_CTRL_DECRYPT, &recipient), "CryptMsgControl(CMSG_CTRL_DECRYPT)");
    return content(message);
}

}  // namespace demo
