// Properties and parameters of both faces, set and read.
#include <functional>

#include "fuzz/provider_fuzz.h"

namespace {

// Texts that are given without a length end with a NUL; everything else is as long as the caller says.
Guarded valueFor(const Guarded& name, Input& input) {
    const std::wstring_view text = name.as<wchar_t>();
    if (text == NCRYPT_PIN_PROPERTY) {
        return Guarded::text(input.takeRest(), 1);
    }
    return text == L"ChainingMode" ? Guarded::text(input.takeRest(), sizeof(wchar_t)) : Guarded(input.takeRest());
}

void cng(Input& input) {
    const CngKey key;
    const Guarded name = propertyName(input);
    const auto* const property = name.as<wchar_t>();
    const bool isOfKey = input.below(2) == 0;
    if (input.below(2) == 0) {
        const Guarded value = valueFor(name, input);
        isOfKey ? KSPSetKeyProperty(tokenProvider(), key.handle, property, value.data(), value.size(), 0)
                : KSPSetProviderProperty(tokenProvider(), property, value.data(), value.size(), 0);
    }
    const Guarded value(input.take<std::uint16_t>() % 4096);
    DWORD size = 0;
    isOfKey ? KSPGetKeyProperty(tokenProvider(), key.handle, property, value.data(), value.size(), &size, 0)
            : KSPGetProviderProperty(tokenProvider(), property, value.data(), value.size(), &size, 0);
}

void csp(Input& input) {
    const CspKey key;
    const DWORD param = input.take<std::uint8_t>();
    const DWORD flags = input.take<DWORD>();
    // Parameters are given without a length: room for the longest fixed one, or a text.
    const bool isPin = param == PP_KEYEXCHANGE_PIN || param == PP_SIGNATURE_PIN;
    Guarded given(64);
    if (isPin) {
        given = Guarded::text(input.takeBytes(input.below(100)), 1);
    } else {
        const auto bytes = input.takeBytes(given.size());
        std::copy(bytes.begin(), bytes.end(), given.data());
    }
    HCRYPTHASH hash = 0;
    CPCreateHash(tokenContext(), CALG_SHA_256, 0, 0, &hash);
    const Guarded value(input.take<std::uint16_t>() % 4096);
    DWORD size = value.size();
    const std::function<void()> operations[] = {
        [&] { CPSetProvParam(tokenContext(), param, given.data(), flags); },
        [&] { CPGetProvParam(tokenContext(), param, value.data(), &size, flags); },
        [&] {
            if (param != KP_CERTIFICATE) {  // has its own target
                CPSetKeyParam(tokenContext(), key.handle, param, given.data(), flags);
            }
        },
        [&] { CPGetKeyParam(tokenContext(), key.handle, param, value.data(), &size, flags); },
        [&] { CPSetHashParam(tokenContext(), hash, param, given.data(), flags & 1); },
        [&] { CPGetHashParam(tokenContext(), hash, param, value.data(), &size, flags & 1); }};
    input.oneOf(operations)();
    CPDestroyHash(tokenContext(), hash);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    tokenContext();
    tokenProvider();
    run.lieFromHere();
    run.input.below(2) == 0 ? csp(run.input) : cng(run.input);
    return 0;
}
