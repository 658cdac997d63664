// Shared by the sources of CPGetProvParam.
#pragma once

#include "csp/context.h"
#include "csp/outcome.h"

namespace talvik::csp {

// Where a parameter's answer goes. A null `size` is refused where a size is to be reported, after everything else that
// a parameter has to refuse.
struct ProviderOutput {
    BYTE* buffer;
    DWORD* size;

    bool hasRoomFor(std::size_t length) const noexcept {
        return buffer != nullptr && size != nullptr && *size >= length;
    }
};

// The size answer that most parameters share: the needed size, and success with ERROR_MORE_DATA as the last error.
Outcome moreData(std::size_t needed, ProviderOutput out);

// PP_ENUMCONTAINERS, PP_ENUMALGS, PP_ENUMALGS_EX. Their position moves before the size is looked at.
Outcome enumerateContainers(CspContext& context, ProviderOutput out, DWORD flags);
Outcome enumerateAlgorithms(CspContext& context, ProviderOutput out, DWORD flags);
Outcome enumerateAlgorithmsEx(CspContext& context, ProviderOutput out, DWORD flags);

// PP_CERTCHAIN: the chain of the context's container as PKCS#7.
Outcome getCertificateChain(const CspContext& context, ProviderOutput out);

}  // namespace talvik::csp
