// DllRegisterServer and DllUnregisterServer: the CNG face's entry in the system's configuration. The functions for it
// are looked up at run time, since systems differ in which of them they have. The module writes no registry values
// itself.
#include <windows.h>

#include <bcrypt.h>

#include "log/log.h"
#include "module.h"

namespace talvik {
namespace {

constexpr wchar_t imageName[] = L"TalvikCSP.dll";
constexpr wchar_t functionName[] = L"KEY_STORAGE";
constexpr ULONG keyStorageInterface = 0x00010001;  // NCRYPT_KEY_STORAGE_INTERFACE
constexpr HRESULT ntStatusMark = 0x10000000;       // FACILITY_NT_BIT: an NTSTATUS as an HRESULT

// As the system's configuration interface has them; not every SDK's bcrypt.h does.
using RegisterProvider = NTSTATUS(WINAPI*)(const wchar_t* provider, ULONG flags, CRYPT_PROVIDER_REG* registration);
using UnregisterProvider = NTSTATUS(WINAPI*)(const wchar_t* provider);
using AddContextFunctionProvider = NTSTATUS(WINAPI*)(ULONG table, const wchar_t* context, ULONG interfaceId,
                                                     const wchar_t* function, const wchar_t* provider, ULONG position);
using RemoveContextFunctionProvider = NTSTATUS(WINAPI*)(ULONG table, const wchar_t* context, ULONG interfaceId,
                                                        const wchar_t* function, const wchar_t* provider);

// The configuration functions of bcrypt.dll, which stays loaded as long as this lives.
class ConfigurationLibrary {
  public:
    ConfigurationLibrary() : module_(LoadLibraryW(L"bcrypt.dll")) {
        if (isLoaded()) {
            find(registerProvider, "BCryptRegisterProvider");
            find(unregisterProvider, "BCryptUnregisterProvider");
            find(addFunctionProvider, "BCryptAddContextFunctionProvider");
            find(removeFunctionProvider, "BCryptRemoveContextFunctionProvider");
        }
    }
    ~ConfigurationLibrary() {
        if (isLoaded()) {
            FreeLibrary(module_);
        }
    }
    ConfigurationLibrary(const ConfigurationLibrary&) = delete;
    ConfigurationLibrary& operator=(const ConfigurationLibrary&) = delete;

    bool isLoaded() const noexcept { return module_ != nullptr; }
    bool canRegister() const noexcept {
        return registerProvider != nullptr && unregisterProvider != nullptr && addFunctionProvider != nullptr;
    }

    // Results do not matter: what is not registered cannot be removed.
    void removeRegistration() const {
        if (removeFunctionProvider != nullptr) {
            removeFunctionProvider(CRYPT_LOCAL, nullptr, keyStorageInterface, functionName, WIDE_PROVIDER_NAME);
        }
        if (unregisterProvider != nullptr) {
            unregisterProvider(WIDE_PROVIDER_NAME);
        }
    }

    RegisterProvider registerProvider = nullptr;
    UnregisterProvider unregisterProvider = nullptr;
    AddContextFunctionProvider addFunctionProvider = nullptr;
    RemoveContextFunctionProvider removeFunctionProvider = nullptr;

  private:
    template <class Function>
    void find(Function& function, const char* name) {
        function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
    }

    HMODULE module_;
};

HRESULT refuse(NTSTATUS status, const char* function) {
    logError(function, " failed: 0x", status);
    return static_cast<HRESULT>(status) | ntStatusMark;
}

NTSTATUS registerImage(const ConfigurationLibrary& library) {
    // The records take their texts as not const but only read them.
    PWSTR functions[] = {const_cast<PWSTR>(functionName)};
    CRYPT_INTERFACE_REG interfaceRecord = {keyStorageInterface, CRYPT_LOCAL, 1, functions};
    PCRYPT_INTERFACE_REG interfaces[] = {&interfaceRecord};
    CRYPT_IMAGE_REG image = {const_cast<PWSTR>(imageName), 1, interfaces};
    CRYPT_PROVIDER_REG provider = {0, nullptr, &image, nullptr};
    return library.registerProvider(WIDE_PROVIDER_NAME, 0, &provider);
}

HRESULT registerServer() {
    logDebug("DllRegisterServer: Registering KSP via CNG API");
    const ConfigurationLibrary library;
    if (!library.isLoaded()) {
        logError("Failed to load bcrypt.dll");
        return E_FAIL;
    }
    if (!library.canRegister()) {
        logError("Failed to find BCrypt registration functions");
        return E_FAIL;
    }
    library.removeRegistration();
    if (const NTSTATUS status = registerImage(library); status != 0) {
        return refuse(status, "BCryptRegisterProvider");
    }
    const NTSTATUS status = library.addFunctionProvider(CRYPT_LOCAL, nullptr, keyStorageInterface, functionName,
                                                        WIDE_PROVIDER_NAME, CRYPT_PRIORITY_BOTTOM);
    if (status != 0) {
        return refuse(status, "BCryptAddContextFunctionProvider");
    }
    logDebug("DllRegisterServer: KSP registered successfully");
    return S_OK;
}

HRESULT unregisterServer() {
    logDebug("DllUnregisterServer: Unregistering KSP via CNG API");
    const ConfigurationLibrary library;
    if (!library.isLoaded()) {
        logError("DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll");
        return E_FAIL;
    }
    library.removeRegistration();
    logDebug("DllUnregisterServer: KSP unregistered successfully");
    return S_OK;
}

}  // namespace
}  // namespace talvik

extern "C" HRESULT WINAPI DllRegisterServer() {
    return talvik::registerServer();
}

extern "C" HRESULT WINAPI DllUnregisterServer() {
    return talvik::unregisterServer();
}
