// CPSetKeyParam(KP_CERTIFICATE), which is given no length: a caller's certificate is as long as its own header says.
// The block ends exactly there, or after the header where that alone decides.
#include "fuzz/run.h"

namespace {

constexpr std::size_t longestCertificate = 3072;

std::size_t readableSize(std::span<const std::uint8_t> der) {
    if (der.empty() || der[0] != 0x30) {
        return 1;
    }
    if (der.size() < 2) {
        return 2;
    }
    if (der[1] < 0x80) {
        return 2u + der[1];
    }
    const std::size_t octets = der[1] & 0x7Fu;
    if (octets == 0 || octets > 3) {
        return 2;
    }
    std::size_t content = 0;
    for (std::size_t i = 2; i < 2 + octets; ++i) {
        content = content << 8 | (i < der.size() ? der[i] : 0);
    }
    const std::size_t total = 2 + octets + content;
    return total <= longestCertificate ? total : 2 + octets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    const CspKey key;
    run.lieFromHere();
    const auto der = run.input.takeRest();
    const Guarded certificate(readableSize(der));
    std::copy_n(der.begin(), std::min<std::size_t>(der.size(), certificate.size()), certificate.data());
    CPSetKeyParam(tokenContext(), key.handle, KP_CERTIFICATE, certificate.data(), 0);
    return 0;
}
