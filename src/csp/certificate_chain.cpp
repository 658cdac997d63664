#include "csp/certificate_chain.h"

#include <algorithm>

#include "log/log.h"
#include "token/key_encoding.h"
#include "token/token_records.h"

namespace talvik {
namespace {

constexpr DWORD certificateEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct CloseStore {
    void operator()(void* store) const noexcept { CertCloseStore(store, 0); }
};
using CertificateStore = std::unique_ptr<void, CloseStore>;

struct FreeChain {
    void operator()(const CERT_CHAIN_CONTEXT* chain) const noexcept { CertFreeCertificateChain(chain); }
};
using CertificateChain = std::unique_ptr<const CERT_CHAIN_CONTEXT, FreeChain>;

struct CloseMessage {
    void operator()(void* message) const noexcept { CryptMsgClose(message); }
};
using CryptMessage = std::unique_ptr<void, CloseMessage>;

// What a record's certificate says of its own length counts: what the field holds behind it would end up in the
// message, where no reader expects it. Empty where the field does not begin with DER.
ByteView certificateIn(const TalvikCertificate& record) {
    const ByteView der = derOf(record);
    const auto certificate = derReadElement(der);
    return certificate ? der.first(der.size() - certificate->rest.size()) : der.first(0);
}

bool isSameName(const CERT_NAME_BLOB& left, const CERT_NAME_BLOB& right) {
    // The system's comparison takes its arguments as not const but changes nothing.
    return CertCompareCertificateName(X509_ASN_ENCODING, const_cast<CERT_NAME_BLOB*>(&left),
                                      const_cast<CERT_NAME_BLOB*>(&right)) != FALSE;
}

bool isSelfSigned(const CERT_CONTEXT& certificate) {
    return isSameName(certificate.pCertInfo->Subject, certificate.pCertInfo->Issuer);
}

// The first certificate other than the leaf whose subject is the issuer of `certificate`.
std::optional<std::size_t> findIssuer(const CERT_CONTEXT& certificate, std::size_t leaf,
                                      TokenCertificates& certificates) {
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        if (i == leaf) {
            continue;
        }
        const CERT_CONTEXT* const candidate = certificates.decoded(i);
        if (candidate != nullptr && isSameName(candidate->pCertInfo->Subject, certificate.pCertInfo->Issuer)) {
            return i;
        }
    }
    return std::nullopt;
}

CertificateStore storeOf(const std::vector<std::size_t>& chain, TokenCertificates& certificates) {
    CertificateStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    for (const std::size_t index : chain) {
        if (const CERT_CONTEXT* const certificate = certificates.decoded(index)) {
            CertAddCertificateContextToStore(store.get(), certificate, CERT_STORE_ADD_ALWAYS, nullptr);
        }
    }
    return store;
}

CertificateChain systemChain(const CERT_CONTEXT& leaf, HCERTSTORE store) {
    CERT_CHAIN_PARA parameters = {};
    parameters.cbSize = sizeof parameters;
    const CERT_CHAIN_CONTEXT* chain = nullptr;
    if (CertGetCertificateChain(nullptr, &leaf, nullptr, store, &parameters, 0, nullptr, &chain) == FALSE) {
        return nullptr;
    }
    return CertificateChain(chain);
}

CryptMessage openMessage(std::vector<CERT_BLOB>& certificates) {
    CMSG_SIGNED_ENCODE_INFO info = {};
    info.cbSize = sizeof info;
    info.cCertEncoded = static_cast<DWORD>(certificates.size());
    info.rgCertEncoded = certificates.data();
    CryptMessage message(CryptMsgOpenToEncode(certificateEncoding, 0, CMSG_SIGNED, &info, nullptr, nullptr));
    if (message != nullptr && CryptMsgUpdate(message.get(), nullptr, 0, TRUE) == FALSE) {
        message.reset();
    }
    return message;
}

constexpr unsigned char derSequence = 0x30;
constexpr unsigned char derSet = 0x31;
constexpr unsigned char derExplicit0 = 0xA0;

// PKCS#7 wants the sets of digest algorithms and of signers also where they are empty, and readers insist on it; not
// every CRYPT32 writes them. A message that has them, or is no signed message, is returned as it is.
Bytes withEmptySets(Bytes message) {
    const auto contentInfo = derReadElement(message);
    const auto type = contentInfo ? derReadElement(contentInfo->content) : std::nullopt;
    const auto content = type ? derReadElement(type->rest) : std::nullopt;
    const auto signedData = content ? derReadElement(content->content) : std::nullopt;
    const auto version = signedData ? derReadElement(signedData->content) : std::nullopt;
    const auto next = version ? derReadElement(version->rest) : std::nullopt;
    if (!type || !version || !next || next->tag == derSet) {
        return message;
    }
    const Bytes emptySet = derEncodeTlv(derSet, {});
    Bytes body = derEncodeTlv(version->tag, version->content);
    append(body, emptySet);
    append(body, version->rest);
    append(body, emptySet);
    Bytes info = derEncodeTlv(type->tag, type->content);
    append(info, derEncodeTlv(derExplicit0, derEncodeTlv(derSequence, body)));
    return derEncodeTlv(derSequence, info);
}

std::optional<Bytes> encodedMessage(HCRYPTMSG message) {
    DWORD size = 0;
    if (CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &size) == FALSE) {
        return std::nullopt;
    }
    Bytes encoded(size);
    if (CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, encoded.data(), &size) == FALSE) {
        return std::nullopt;
    }
    encoded.resize(size);
    return withEmptySets(std::move(encoded));
}

BOOL answerMessage(HCRYPTMSG message, BYTE* pbData, DWORD* pcbData) {
    const std::optional<Bytes> encoded = encodedMessage(message);
    if (!encoded) {
        return FALSE;
    }
    const DWORD room = *pcbData;
    *pcbData = static_cast<DWORD>(encoded->size());
    if (pbData != nullptr && room >= encoded->size()) {
        std::copy(encoded->begin(), encoded->end(), pbData);
        return TRUE;
    }
    SetLastError(ERROR_MORE_DATA);
    return TRUE;
}

BOOL refuse(const char* text) {
    logError(text);
    return FALSE;
}

BOOL refuse(long error, const char* text) {
    logError(text);
    SetLastError(static_cast<DWORD>(error));
    return FALSE;
}

}  // namespace

const CERT_CONTEXT* TokenCertificates::decoded(std::size_t index) {
    std::optional<CertificateContext>& slot = decoded_[index];
    if (!slot) {
        const ByteView der = certificateIn(records_[index]);
        slot.emplace(CertCreateCertificateContext(certificateEncoding, der.data(), static_cast<DWORD>(der.size())));
    }
    return slot->get();
}

std::vector<std::size_t> orderCertificateChain(std::size_t leaf, TokenCertificates& certificates) {
    std::vector<std::size_t> chain{leaf};
    const CERT_CONTEXT* current = certificates.decoded(leaf);
    if (current == nullptr) {
        logDebug("[ERROR] Cannot parse leaf cert");
        return chain;
    }
    for (;;) {
        const std::optional<std::size_t> issuer = findIssuer(*current, leaf, certificates);
        if (!issuer || std::ranges::find(chain, *issuer) != chain.end()) {
            return chain;
        }
        chain.push_back(*issuer);
        current = certificates.decoded(*issuer);
        if (isSelfSigned(*current)) {
            logDebug("[ROOT] Self-signed root detected.");
            return chain;
        }
    }
}

std::vector<CERT_BLOB> rootFirst(const CERT_CHAIN_CONTEXT& chain) {
    std::vector<CERT_BLOB> blobs;
    for (DWORD i = 0; i < chain.cChain; ++i) {
        const CERT_SIMPLE_CHAIN& simple = *chain.rgpChain[i];
        for (DWORD element = simple.cElement; element > 0; --element) {
            const CERT_CONTEXT& certificate = *simple.rgpElement[element - 1]->pCertContext;
            blobs.push_back({certificate.cbCertEncoded, certificate.pbCertEncoded});
        }
    }
    return blobs;
}

BOOL BuildCertificateChain(const std::vector<std::size_t>& chain, TokenCertificates& certificates, BYTE* pbData,
                           DWORD* pcbData) {
    if (chain.empty()) {
        return refuse(NTE_NO_KEY, "Certificate Is Empty");
    }
    const CERT_CONTEXT* const leaf = certificates.decoded(chain.front());
    if (leaf == nullptr) {
        return refuse(NTE_BAD_KEY, "Failed creating leaf certificate");
    }
    const CertificateStore store = storeOf(chain, certificates);
    const CertificateChain built = systemChain(*leaf, store.get());
    if (built == nullptr) {
        return refuse("Chain build failed");
    }
    std::vector<CERT_BLOB> encoded = rootFirst(*built);
    if (encoded.empty()) {
        return refuse("No certificates in PKCS#7 chain");
    }
    const CryptMessage message = openMessage(encoded);
    if (message == nullptr) {
        return refuse("BuildCertificateChain: CryptMsgOpenToEncode failed");
    }
    return answerMessage(message.get(), pbData, pcbData);
}

}  // namespace talvik
