#include "csp/hash.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "csp/context.h"
#include "csp/entry_points.h"
#include "csp/outcome.h"
#include "csp/pieces.h"
#include "log/log.h"
#include "token/device_library.h"

namespace talvik::csp {
namespace {

struct HashAlgorithm {
    std::uint32_t algId;
    std::uint32_t mechanism;
    std::uint32_t digestSize;  // bytes
    const char* creationText;
};

constexpr HashAlgorithm hashAlgorithms[] = {
    {CALG_SHA1, TALVIK_HASH_SHA1, 20, "Crete hash algorithm sha1"},
    {CALG_SHA_256, TALVIK_HASH_SHA256, 32, "Crete hash algorithm 256"},
    {CALG_SHA_384, TALVIK_HASH_SHA384, 48, "Crete hash algorithm 384"},
    {CALG_SHA_512, TALVIK_HASH_SHA512, 64, "Crete hash algorithm 512"},
};

const HashAlgorithm* hashMechanismFromAlgId(ALG_ID algId) {
    const auto* const row = std::find_if(std::begin(hashAlgorithms), std::end(hashAlgorithms),
                                         [=](const HashAlgorithm& candidate) { return candidate.algId == algId; });
    return row == std::end(hashAlgorithms) ? nullptr : row;
}

const HashAlgorithm* algorithmOfMechanism(std::uint32_t mechanism) {
    const auto* const row =
        std::find_if(std::begin(hashAlgorithms), std::end(hashAlgorithms),
                     [=](const HashAlgorithm& candidate) { return candidate.mechanism == mechanism; });
    return row == std::end(hashAlgorithms) ? nullptr : row;
}

Outcome create(HCRYPTPROV hProv, ALG_ID algId, DWORD dwFlags, HCRYPTHASH* phHash) {
    logDebug("CPCreateHash");
    if (phHash == nullptr || hProv == 0) {
        return fail(ERROR_INVALID_PARAMETER, "CPCreateHash: invalid parameter - phHash=", addressNumber(phHash),
                    " hProv=", hProv);
    }
    if (dwFlags != 0) {
        return fail(NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x", HexWord{dwFlags});
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPCreateHash: context not initialized");
    }
    std::unique_ptr<HASH_CONTEXT> hash(new (std::nothrow) HASH_CONTEXT);
    if (hash == nullptr) {
        return fail(NTE_NO_MEMORY, "CPCreateHash: failed to allocate HASH_CONTEXT");
    }
    hash->isValid = 1;
    logDebug("Crete hash algorithm input : ", algId);
    const HashAlgorithm* const algorithm = hashMechanismFromAlgId(algId);
    if (algorithm == nullptr) {
        return fail(NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x", HexWord{algId});
    }
    logDebug(algorithm->creationText);
    hash->hashSize = algorithm->digestSize;
    hash->mechanism = algorithm->mechanism;
    hash->mechanismCopy = algorithm->mechanism;
    logDebug("Crete hash algorithm : ", hash->mechanism);

    const int status = talvik_initHash(context->deviceId.c_str(), static_cast<int>(hash->mechanism),
                                       &hash->deviceHashHandle, context->reserved);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_FAIL, "CPCreateHash: talvik_initHash failed, ret=", status);
    }
    *phHash = reinterpret_cast<HCRYPTHASH>(hash.release());
    return success();
}

Outcome hashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbData) {
    logDebug("CPHashData");
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPHashData: invalid or uninitialized context");
    }
    const HASH_CONTEXT* const hash = hashOf(hHash);
    if (hash == nullptr) {
        return fail(NTE_BAD_HASH, "CPHashData: pHashHandle is NULL");
    }
    const int status = inPieces(pbData, cbData, [=](const BYTE* data, int size) {
        return talvik_updateHash(hash->deviceHashHandle, data, size, context->reserved);
    });
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_FAIL, "CPHashData: talvik_updateHash failed, ret=", status);
    }
    return success();
}

// Where a parameter's answer goes.
struct Output {
    BYTE* buffer;
    DWORD* size;
};

// The 32-bit answers follow from the mechanism. An unknown one matters only once there is room for the answer.
Outcome answerWord(const HASH_CONTEXT& hash, Output out, const char* name, std::uint32_t HashAlgorithm::*field) {
    std::uint32_t value = 0;
    if (out.buffer == nullptr || *out.size < sizeof value) {
        return answer(bytesOf(value), out.buffer, out.size, "CPGetHashParam: ", name, " buffer too small");
    }
    const HashAlgorithm* const algorithm = algorithmOfMechanism(hash.mechanism);
    if (algorithm == nullptr) {
        return fail(NTE_BAD_ALGID, "CPGetHashParam: ", name, " unsupported mechanism=", hash.mechanism);
    }
    value = algorithm->*field;
    if (field == &HashAlgorithm::digestSize) {
        logDebug("Get hash param hashSize : ", value);
    }
    const Outcome outcome = answer(bytesOf(value), out.buffer, out.size);
    logDebug("Get hash param success");
    return outcome;
}

Outcome getHashValue(HASH_CONTEXT& hash, Output out, void* reserved) {
    const HashAlgorithm* const algorithm = algorithmOfMechanism(hash.mechanism);
    if (algorithm == nullptr) {
        return fail(NTE_BAD_ALGID, "CPGetHashParam: HP_HASHVAL unsupported mechanism=", hash.mechanism);
    }
    if (out.buffer == nullptr) {
        *out.size = algorithm->digestSize;
        return success();
    }
    if (hash.isFinalized != 0) {
        return answer({hash.hashValue, hash.hashValueLen}, out.buffer, out.size,
                      "CPGetHashParam: HP_HASHVAL buffer too small for cached hash value");
    }
    if (const auto failure = finalizeHash(hash, static_cast<int>(algorithm->digestSize), reserved)) {
        return fail(NTE_FAIL, "CPGetHashParam: talvik_finalHash failed, ret=", *failure);
    }
    return answer({hash.hashValue, hash.hashValueLen}, out.buffer, out.size,
                  "CPGetHashParam: HP_HASHVAL buffer too small for finalized hash");
}

Outcome getHmacInfo(const HASH_CONTEXT& hash, Output out) {
    if (hash.isHmac == 0) {
        return fail(NTE_BAD_TYPE, "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
    }
    const Outcome outcome =
        answer(bytesOf(hash.hmacInfo), out.buffer, out.size, "CPGetHashParam: HP_HMAC_INFO buffer too small");
    if (out.buffer != nullptr && outcome.result != FALSE) {
        logDebug("Get hash param success");
    }
    return outcome;
}

Outcome getParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, Output out, DWORD dwFlags) {
    logDebug("CPGetHashParam");
    if (hProv == 0 || hHash == 0 || out.size == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPGetHashParam: invalid parameter - hProv=", hProv, " hHash=", hHash,
                    " pcbDataLen=", addressNumber(out.size));
    }
    if (dwFlags != 0) {
        return fail(NTE_BAD_FLAGS, "CPGetHashParam: invalid dwFlags=0x", HexWord{dwFlags});
    }
    const CspContext* const context = contextOf(hProv);
    HASH_CONTEXT& hash = *hashOf(hHash);
    if (context == nullptr || hash.isValid == 0) {
        return fail(NTE_BAD_HASH, "CPGetHashParam: context not initialized or hash not valid");
    }
    logDebug("CPGetHashParam dwParam : ", dwParam);
    logDebug("CPGetHashParam mechanism : ", hash.mechanism);
    switch (dwParam) {
        case HP_ALGID:
            return answerWord(hash, out, "HP_ALGID", &HashAlgorithm::algId);
        case HP_HASHSIZE:
            return answerWord(hash, out, "HP_HASHSIZE", &HashAlgorithm::digestSize);
        case HP_HASHVAL:
            return getHashValue(hash, out, context->reserved);
        case HP_HMAC_INFO:
            return getHmacInfo(hash, out);
        default:
            return fail(NTE_BAD_TYPE, "CPGetHashParam: unsupported dwParam=0x", HexWord{dwParam});
    }
}

// A digest that was computed elsewhere, to be signed here. The caller gives no length: the algorithm has one.
Outcome setHashValue(HASH_CONTEXT& hash, const BYTE* pbData) {
    std::memcpy(hash.hashValue, pbData, hash.hashSize);
    hash.hashValueLen = hash.hashSize;
    hash.isFinalized = 1;
    return success();
}

// Starts the device hash anew; the key material that the record points to never reaches the token.
Outcome setHmacInfo(const CspContext& context, HASH_CONTEXT& hash, const BYTE* pbData) {
    std::memcpy(hash.hmacInfo, pbData, sizeof hash.hmacInfo);
    const int status = talvik_initHash(context.deviceId.c_str(), static_cast<int>(hash.mechanism),
                                       &hash.deviceHashHandle, context.reserved);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_FAIL, "CPSetHashParam: talvik_initHash failed for HP_HMAC_INFO, ret=", status);
    }
    return success();
}

Outcome setParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    logDebug("CPSetHashParam");
    if (hProv == 0 || hHash == 0 || pbData == nullptr) {
        return fail(ERROR_INVALID_PARAMETER, "CPSetHashParam: invalid parameter - hProv=", hProv, " hHash=", hHash,
                    " pbData=", addressNumber(pbData));
    }
    if (dwFlags != 0) {
        return fail(NTE_BAD_FLAGS, "CPSetHashParam: invalid dwFlags=0x", HexWord{dwFlags});
    }
    const CspContext* const context = contextOf(hProv);
    HASH_CONTEXT& hash = *hashOf(hHash);
    if (context == nullptr || hash.isValid == 0) {
        return fail(NTE_BAD_HASH, "CPSetHashParam: context not initialized or hash not valid");
    }
    logDebug("Set hash param dwParam : ", dwParam);
    logDebug("Set hash param dwFlags : ", dwFlags);
    switch (dwParam) {
        case HP_HASHVAL:
            return setHashValue(hash, pbData);
        case HP_HMAC_INFO:
            return setHmacInfo(*context, hash, pbData);
        default:
            return fail(NTE_BAD_TYPE, "CPSetHashParam: unsupported dwParam=0x", HexWord{dwParam});
    }
}

Outcome duplicate(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwFlags, HCRYPTHASH* phHash) {
    logDebug("CPDuplicateHash");
    if (phHash == nullptr || hProv == 0 || hHash == 0) {
        return fail(ERROR_INVALID_PARAMETER, "CPDuplicateHash: invalid parameter - phHash=", addressNumber(phHash),
                    " hProv=", hProv, " hHash=", hHash);
    }
    if (dwFlags != 0) {
        return fail(NTE_BAD_FLAGS, "CPDuplicateHash: invalid dwFlags=0x", HexWord{dwFlags});
    }
    const CspContext* const context = contextOf(hProv);
    if (context == nullptr) {
        return fail(NTE_BAD_UID, "CPDuplicateHash: invalid or uninitialized context");
    }
    const HASH_CONTEXT& source = *hashOf(hHash);
    if (source.isValid == 0) {
        return fail(NTE_BAD_HASH, "CPDuplicateHash: source hash is NULL or invalid");
    }
    std::unique_ptr<HASH_CONTEXT> copy(new (std::nothrow) HASH_CONTEXT(source));
    if (copy == nullptr) {
        return fail(NTE_NO_MEMORY, "CPDuplicateHash: failed to allocate HASH_CONTEXT");
    }
    copy->mechanismCopy = 0;
    copy->deviceHashHandle = nullptr;
    const int status = talvik_initHash(context->deviceId.c_str(), static_cast<int>(source.mechanism),
                                       &copy->deviceHashHandle, context->reserved);
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_FAIL, "CPDuplicateHash: talvik_initHash failed, ret=", status);
    }
    logDebug("CPDuplicateHash - source: 0x", HexNumber{hHash}, " duplicate: 0x", HexNumber{addressNumber(copy.get())});
    *phHash = reinterpret_cast<HCRYPTHASH>(copy.release());
    return success();
}

Outcome destroy(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    logDebug("CPDestroyHash");
    if (contextOf(hProv) == nullptr) {
        return fail(NTE_BAD_UID, "CPDestroyHash: invalid or uninitialized context");
    }
    if (hHash == 0) {
        return fail(NTE_BAD_HASH, "CPDestroyHash: pHashHandle is NULL");
    }
    delete hashOf(hHash);
    return success();
}

}  // namespace

std::optional<int> finalizeHash(HASH_CONTEXT& hash, int expectedLength, void* reserved) {
    int length = expectedLength;
    const int status = talvik_finalHash(hash.deviceHashHandle, hash.hashValue, &length, reserved);
    if (status != TALVIK_STATUS_OK || length < 0 || length > static_cast<int>(sizeof hash.hashValue)) {
        return status;
    }
    hash.isFinalized = 1;
    hash.hashValueLen = static_cast<std::uint32_t>(length);
    return std::nullopt;
}

}  // namespace talvik::csp

using talvik::csp::entryPoint;

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY, DWORD dwFlags, HCRYPTHASH* phHash) {
    return entryPoint("CPCreateHash", [=] { return talvik::csp::create(hProv, Algid, dwFlags, phHash); });
}

BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbData, DWORD) {
    return entryPoint("CPHashData", [=] { return talvik::csp::hashData(hProv, hHash, pbData, cbData); });
}

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pcbDataLen,
                           DWORD dwFlags) {
    return entryPoint("CPGetHashParam", [=] {
        return talvik::csp::getParam(hProv, hHash, dwParam, {pbData, pcbDataLen}, dwFlags);
    });
}

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData, DWORD dwFlags) {
    return entryPoint("CPSetHashParam", [=] { return talvik::csp::setParam(hProv, hHash, dwParam, pbData, dwFlags); });
}

BOOL WINAPI CPDuplicateHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD*, DWORD dwFlags, HCRYPTHASH* phHash) {
    return entryPoint("CPDuplicateHash", [=] { return talvik::csp::duplicate(hProv, hHash, dwFlags, phHash); });
}

BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash) {
    return entryPoint("CPDestroyHash", [=] { return talvik::csp::destroy(hProv, hHash); });
}
