#include "ksp/provider.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>
#include <variant>
#include <vector>

#include "ksp/algorithms.h"
#include "ksp/entry_points.h"
#include "module.h"
#include "token/device_library.h"
#include "token/device_monitor.h"
#include "token/handle.h"
#include "token/session.h"

namespace talvik::ksp {
namespace {

// One for all providers: it is held for the copy of a pointer.
std::mutex tokenLock;

SECURITY_STATUS openProvider(NCRYPT_PROV_HANDLE* phProvider) {
    if (phProvider == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPOpenProvider: phProvider is null");
    }
    std::unique_ptr<KspProvider> provider(new (std::nothrow) KspProvider);
    if (provider == nullptr) {
        return fail(NTE_NO_MEMORY, "KSPOpenProvider: failed to allocate provider");
    }
    talvik_init(0, nullptr, 2);
    startDeviceMonitor();
    BoundToken token;
    void* const context = token.libraryContext;
    const std::vector<std::string> devices = talvik_getConnectedDeviceList(false, context);
    if (devices.empty()) {
        logDebug("KSP: No token connected, opening provider without device");
        provider->open(std::move(token));
        handOver(std::move(provider), phProvider);
        return ERROR_SUCCESS;
    }
    token.deviceId = devices.front();
    token.firmwareVersion = talvik_getTokenInfo(token.deviceId.c_str(), context).firmwareVersion;
    logDebug("KSP: Provider firmware=", token.firmwareVersion);
    initializeDevices(devices, "KSP: Init device failed for ", context);
    provider->open(std::move(token));
    handOver(std::move(provider), phProvider);
    logDebug("KSP: Provider opened successfully");
    return ERROR_SUCCESS;
}

// Nothing happens on the token: its session, and the PIN that was validated for it, serve the whole process.
SECURITY_STATUS freeProvider(NCRYPT_PROV_HANDLE hProvider) {
    if (hProvider == 0) {
        return fail(NTE_INVALID_HANDLE, "KSPFreeProvider: provider handle is null");
    }
    delete reinterpret_cast<KspProvider*>(hProvider);
    return ERROR_SUCCESS;
}

struct ProviderProperty {
    std::wstring_view name;
    std::variant<std::wstring_view, DWORD> value;
};

constexpr ProviderProperty providerProperties[] = {
    {NCRYPT_NAME_PROPERTY, WIDE_PROVIDER_NAME},
    {NCRYPT_IMPL_TYPE_PROPERTY, DWORD{NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG}},
    {NCRYPT_VERSION_PROPERTY, DWORD{0x100}},
    {NCRYPT_ALGORITHM_PROPERTY, rsaAlgorithmName},
    {NCRYPT_MAX_NAME_LENGTH_PROPERTY, DWORD{256}},
    {NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY, DWORD{0}},
};

SECURITY_STATUS getProperty(LPCWSTR pszProperty, Output out) {
    if (pszProperty == nullptr || out.size == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPGetProviderProperty: pszProperty or pcbResult is null");
    }
    const std::wstring_view name = pszProperty;
    if (const auto* const property = findRow(providerProperties, &ProviderProperty::name, name)) {
        const auto* const text = std::get_if<std::wstring_view>(&property->value);
        return text != nullptr ? answerText(*text, out) : answerValue(std::get<DWORD>(property->value), out);
    }
    if (name == NCRYPT_USE_COUNT_PROPERTY) {
        return fail(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: NCRYPT_USE_COUNT_PROPERTY not supported");
    }
    return fail(NTE_NOT_SUPPORTED, "KSPGetProviderProperty: unsupported property");
}

SECURITY_STATUS setProperty(KspProvider& provider, LPCWSTR pszProperty, ByteView input) {
    if (pszProperty == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPSetProviderProperty: pszProperty is null");
    }
    const std::wstring_view name = pszProperty;
    if (name == NCRYPT_WINDOW_HANDLE_PROPERTY) {
        HWND window = nullptr;
        readValue(input, window);
        provider.setWindow(window);
        return ERROR_SUCCESS;
    }
    if (name == NCRYPT_PIN_PROPERTY) {
        return setPin("KSPSetProviderProperty", *provider.token(), input.data());
    }
    return fail(NTE_NOT_SUPPORTED, "KSPSetProviderProperty: unsupported property");
}

SECURITY_STATUS isAlgSupported(LPCWSTR pszAlgId) {
    if (pszAlgId == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPIsAlgSupported: pszAlgId is null");
    }
    if (findRow(algorithms, &Algorithm::name, std::wstring_view(pszAlgId)) == nullptr) {
        return fail(NTE_NOT_SUPPORTED, "KSPIsAlgSupported: algorithm not supported");
    }
    return ERROR_SUCCESS;
}

// What KSPFreeBuffer releases has no destructor: the entries and the names that they point to are one block.
struct AlgorithmList {
    NCryptAlgorithmName entries[std::size(algorithms)];
    wchar_t names[std::size(algorithms)][algorithmNameRoom];
};

SECURITY_STATUS enumAlgorithms(DWORD dwAlgOperations, DWORD* pdwAlgCount, NCryptAlgorithmName** ppAlgList) {
    if (pdwAlgCount == nullptr || ppAlgList == nullptr) {
        return fail(NTE_INVALID_PARAMETER, "KSPEnumAlgorithms: pdwAlgCount or ppAlgList is null");
    }
    auto* const list = static_cast<AlgorithmList*>(std::calloc(1, sizeof(AlgorithmList)));
    if (list == nullptr) {
        return fail(NTE_NO_MEMORY, "KSPEnumAlgorithms: failed to allocate algorithm list");
    }
    DWORD count = 0;
    for (const Algorithm& algorithm : algorithms) {
        if (dwAlgOperations == 0 || (algorithm.operations & dwAlgOperations) != 0) {
            wchar_t* const name = list->names[count];
            std::ranges::copy(algorithm.name, name);
            list->entries[count++] = {name, algorithm.interfaceClass, algorithm.operations, 0};
        }
    }
    *pdwAlgCount = count;
    *ppAlgList = list->entries;
    logDebug("KSP: Enumerated ", count, " algorithms");
    return ERROR_SUCCESS;
}

}  // namespace

std::shared_ptr<const BoundToken> KspProvider::token() const {
    const std::lock_guard guard(tokenLock);
    return token_;
}

std::shared_ptr<const BoundToken> KspProvider::bindTo(const std::string& deviceId) {
    const std::lock_guard guard(tokenLock);
    if (token_->deviceId != deviceId) {
        auto changed = std::make_shared<BoundToken>(*token_);
        changed->deviceId = deviceId;
        token_ = std::move(changed);
    }
    return token_;
}

void KspProvider::setWindow(HWND window) {
    const std::lock_guard guard(tokenLock);
    auto changed = std::make_shared<BoundToken>(*token_);
    changed->window = window;
    token_ = std::move(changed);
}

SECURITY_STATUS requirePin(const char* name, const BoundToken& token, DWORD dwFlags, const char* occasion) {
    const std::string& deviceId = token.deviceId;
    void* const context = token.libraryContext;
    if ((dwFlags & NCRYPT_SILENT_FLAG) != 0) {
        if (!canProceedSilently(deviceId, context) || !ensureKspPasswordSilently(deviceId, context)) {
            return fail(NTE_SILENT_CONTEXT, name, ": silent mode requested but PIN not validated");
        }
        return ERROR_SUCCESS;
    }
    if (!ensureKspPasswordValidated(deviceId, context, token.window)) {
        return fail(NTE_FAIL, name, ": password validation failed", occasion);
    }
    return ERROR_SUCCESS;
}

SECURITY_STATUS setPin(const char* name, const BoundToken& token, const BYTE* pin) {
    if (pin == nullptr) {
        return fail(NTE_INVALID_PARAMETER, name, ": NCRYPT_PIN_PROPERTY pbInput is null");
    }
    logDebug("KSP: Setting PIN via property");
    const int status = validatePin(token.deviceId, reinterpret_cast<const char*>(pin), token.libraryContext).status;
    if (status != TALVIK_STATUS_OK) {
        return fail(NTE_VALIDATION_FAILED, "KSP: PIN validation failed: ", status);
    }
    return ERROR_SUCCESS;
}

}  // namespace talvik::ksp

using talvik::ksp::BoundToken;
using talvik::ksp::entryPoint;
using talvik::ksp::KspProvider;
using talvik::ksp::providerEntryPoint;
using talvik::ksp::tokenEntryPoint;

SECURITY_STATUS WINAPI KSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR, DWORD) {
    return entryPoint("KSPOpenProvider", [=] { return talvik::ksp::openProvider(phProvider); });
}

SECURITY_STATUS WINAPI KSPFreeProvider(NCRYPT_PROV_HANDLE hProvider) {
    return entryPoint("KSPFreeProvider", [=] { return talvik::ksp::freeProvider(hProvider); });
}

SECURITY_STATUS WINAPI KSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                              DWORD cbOutput, DWORD* pcbResult, DWORD) {
    return providerEntryPoint("KSPGetProviderProperty", hProvider, [=](KspProvider&) {
        return talvik::ksp::getProperty(pszProperty, {pbOutput, cbOutput, pcbResult});
    });
}

SECURITY_STATUS WINAPI KSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                              DWORD cbInput, DWORD) {
    return providerEntryPoint("KSPSetProviderProperty", hProvider, [=](KspProvider& provider) {
        return talvik::ksp::setProperty(provider, pszProperty, {pbInput, cbInput});
    });
}

SECURITY_STATUS WINAPI KSPIsAlgSupported(NCRYPT_PROV_HANDLE, LPCWSTR pszAlgId, DWORD) {
    return entryPoint("KSPIsAlgSupported", [=] { return talvik::ksp::isAlgSupported(pszAlgId); });
}

SECURITY_STATUS WINAPI KSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD* pdwAlgCount,
                                         NCryptAlgorithmName** ppAlgList, DWORD) {
    return providerEntryPoint("KSPEnumAlgorithms", hProvider, [=](KspProvider&) {
        return talvik::ksp::enumAlgorithms(dwAlgOperations, pdwAlgCount, ppAlgList);
    });
}

SECURITY_STATUS WINAPI KSPFreeBuffer(PVOID pvInput) {
    return entryPoint("KSPFreeBuffer", [=]() -> SECURITY_STATUS {
        std::free(pvInput);
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD) {
    return tokenEntryPoint("KSPPromptUser", hProvider,
                           [](const BoundToken& token) { return talvik::ksp::requirePin("KSPPromptUser", token, 0); });
}
