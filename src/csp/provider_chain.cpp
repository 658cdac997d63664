#include <map>
#include <vector>

#include "csp/certificate_chain.h"
#include "csp/provider_params.h"
#include "log/log.h"
#include "token/key_pair_list.h"
#include "token/token_records.h"

namespace talvik::csp {
namespace {

using ChainsByContainer = std::map<std::string, std::vector<std::size_t>>;

// The modulus that a certificate carries; empty when the library cannot read it.
Bytes certifiedModulus(const TalvikCertificate& certificate) {
    CertificateDetails details;
    const ByteView der = derOf(certificate);
    const int status = talvik_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr);
    return status == TALVIK_STATUS_OK ? std::move(details.publicKey) : Bytes();
}

// The chain of every key pair that a certificate on the token belongs to; of several certificates the last one counts.
ChainsByContainer chainsOfToken(const KeyPairList& keys, TokenCertificates& certificates) {
    ChainsByContainer chains;
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        const Bytes modulus = certifiedModulus(certificates.record(i));
        if (modulus.empty()) {
            continue;
        }
        for (const TalvikKeyPair& key : keys) {
            if (equalBytes(talvik::publicKeyOf(key), modulus)) {
                const std::string name = containerNameOf(key);
                logDebug("Public key match found; container=", name);
                chains[name] = orderCertificateChain(i, certificates);
            }
        }
    }
    return chains;
}

}  // namespace

Outcome getCertificateChain(const CspContext& context, Output out) {
    const KeyPairList keys(context.deviceId, context.reserved);
    TokenCertificates certificates(talvik_getCertificateList(context.deviceId.c_str(), context.reserved));
    const ChainsByContainer chains = chainsOfToken(keys, certificates);
    const auto chain = chains.find(context.containerName);
    if (chain == chains.end()) {
        return fail(NTE_NO_KEY,
                    "CPGetProvParam PP_CERTCHAIN: container not found, containerName=", context.containerName);
    }
    DWORD size = out.size != nullptr ? *out.size : 0;
    if (BuildCertificateChain(chain->second, certificates, out.buffer, &size) == FALSE) {
        return failureAsSet();
    }
    if (!out.hasRoomFor(size)) {
        return moreData(size, out);
    }
    *out.size = size;
    return success();
}

}  // namespace talvik::csp
