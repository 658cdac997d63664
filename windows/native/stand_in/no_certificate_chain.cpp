// Building a certificate chain is the system's work, which has no stand-in here: what leads there answers as if the
// token had no certificate. The certificate chain is tested under Wine.
#include "csp/provider_params.h"

namespace talvik::csp {

Outcome getCertificateChain(const CspContext& context, Output) {
    return fail(NTE_NO_KEY, "CPGetProvParam PP_CERTCHAIN: container not found, containerName=", context.containerName);
}

}  // namespace talvik::csp
