// Shared by the sources of CPGetProvParam.
#pragma once

#include "csp/context.h"
#include "csp/outcome.h"

namespace talvik::csp {

// The size answer that most parameters share: the needed size, and success with ERROR_MORE_DATA as the last error.
Outcome moreData(std::size_t needed, Output out);

// PP_ENUMCONTAINERS, PP_ENUMALGS, PP_ENUMALGS_EX. Their position moves before the size is looked at.
Outcome enumerateContainers(CspContext& context, Output out, DWORD flags);
Outcome enumerateAlgorithms(CspContext& context, Output out, DWORD flags);
Outcome enumerateAlgorithmsEx(CspContext& context, Output out, DWORD flags);

// PP_CERTCHAIN: the chain of the context's container as PKCS#7.
Outcome getCertificateChain(const CspContext& context, Output out);

}  // namespace talvik::csp
