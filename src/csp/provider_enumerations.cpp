#include <algorithm>
#include <cstring>
#include <iterator>

#include "csp/provider_algorithms.h"
#include "csp/provider_params.h"
#include "log/log.h"

namespace talvik::csp {
namespace {

template <std::size_t Capacity>
void putName(CHAR (&field)[Capacity], std::string_view name) {
    const std::string_view kept = name.substr(0, Capacity - 1);
    std::copy(kept.begin(), kept.end(), field);
}

PROV_ENUMALGS shortRecord(const AdvertisedAlgorithm& algorithm) {
    PROV_ENUMALGS record = {};
    record.aiAlgid = algorithm.algId;
    record.dwBitLen = algorithm.defaultBits;
    record.dwNameLen = static_cast<DWORD>(algorithm.name.size());
    putName(record.szName, algorithm.name);
    return record;
}

PROV_ENUMALGS_EX longRecord(const AdvertisedAlgorithm& algorithm) {
    PROV_ENUMALGS_EX record = {};
    record.aiAlgid = algorithm.algId;
    record.dwDefaultLen = algorithm.defaultBits;
    record.dwMinLen = algorithm.minimumBits;
    record.dwMaxLen = algorithm.maximumBits;
    record.dwProtocols = algorithm.protocols;
    record.dwNameLen = static_cast<DWORD>(algorithm.name.size());
    putName(record.szName, algorithm.name);
    record.dwLongNameLen = static_cast<DWORD>(algorithm.longName.size());
    putName(record.szLongName, algorithm.longName);
    return record;
}

static_assert(sizeof(PROV_ENUMALGS) == 32 && sizeof(PROV_ENUMALGS_EX) == 88);

// The two forms differ in their record and their texts, not in how they walk.
template <class MakeRecord>
Outcome walkAlgorithms(CspContext& context, Output out, DWORD flags, std::string_view parameter,
                       std::string_view returned, MakeRecord makeRecord) {
    logDebug("CPGetProvParam: ", parameter);
    const DWORD direction = flags & ~static_cast<DWORD>(CRYPT_SGC_ENUM);
    if (direction == CRYPT_FIRST) {
        context.algEnumIndex = 0;
    } else if (direction == 0 || direction == CRYPT_NEXT) {
        ++context.algEnumIndex;
    } else {
        return fail(ERROR_INVALID_PARAMETER, "CPGetProvParam ", parameter, ": invalid dwFlags=", direction);
    }
    if (context.algEnumIndex >= std::size(supportedAlgorithms)) {
        return fail(ERROR_NO_MORE_ITEMS, "CPGetProvParam ", parameter,
                    ": no more algorithms, index=", context.algEnumIndex);
    }
    const AdvertisedAlgorithm& algorithm = supportedAlgorithms[context.algEnumIndex];
    const auto record = makeRecord(algorithm);
    if (out.buffer == nullptr || out.size == nullptr) {
        return moreData(sizeof record, out);
    }
    const Outcome outcome = answer(bytesOf(record), out, "CPGetProvParam ", parameter,
                                   ": output buffer too small, required=", sizeof record);
    if (outcome.result != FALSE) {
        logDebug("CPGetProvParam: returned ", returned, " -> ", algorithm.name);
    }
    return outcome;
}

}  // namespace

Outcome enumerateContainers(CspContext& context, Output out, DWORD flags) {
    if (flags == CRYPT_FIRST) {
        context.enumIndex = 0;
    } else if (flags == CRYPT_NEXT) {
        ++context.enumIndex;
    } else {
        return fail(ERROR_INVALID_PARAMETER, "CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=", flags);
    }
    if (context.enumIndex >= context.containerNames.size()) {
        return fail(ERROR_NO_MORE_ITEMS,
                    "CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=", context.enumIndex);
    }
    const std::string& name = context.containerNames[context.enumIndex];
    const std::size_t needed = name.size() + 1;
    if (!out.hasRoomFor(needed)) {
        return moreData(needed, out);
    }
    std::memcpy(out.buffer, name.c_str(), needed);
    *out.size = static_cast<DWORD>(needed);
    logDebug("CPGetProvParam: returned container -> ", name);
    return success();
}

Outcome enumerateAlgorithms(CspContext& context, Output out, DWORD flags) {
    return walkAlgorithms(context, out, flags, "PP_ENUMALGS", "algorithm", shortRecord);
}

Outcome enumerateAlgorithmsEx(CspContext& context, Output out, DWORD flags) {
    return walkAlgorithms(context, out, flags, "PP_ENUMALGS_EX", "EX algorithm", longRecord);
}

}  // namespace talvik::csp
