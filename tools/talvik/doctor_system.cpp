#include "doctor_system.h"

#include <windows.h>

#include <array>
#include <cstdio>
#include <optional>
#include <winver.h>

#include "log_files.h"
#include "system_folder.h"
#include "system_text.h"
#include "token/device_library.h"

namespace talvik_tool {
namespace {

using virtual_token::systemErrorText;
using virtual_token::utf8;

constexpr char repair[] = "Repair the installation: msiexec /i Talvik-...-x64.msi REINSTALL=ALL REINSTALLMODE=amus";
constexpr char registerCng[] = "As administrator: regsvr32 %SystemRoot%\\System32\\TalvikCSP.dll";
constexpr wchar_t imageName[] = L"TalvikCSP.dll";

const std::wstring cspKey = std::wstring(L"Software\\Microsoft\\Cryptography\\Defaults\\Provider\\") + providerName;
const std::wstring cngKey =
    std::wstring(L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Providers\\") + providerName + L"\\UM";
constexpr wchar_t cngListKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE";

// Nothing when there is no such value of one of these types. Texts of a REG_MULTI_SZ stay separated by NULs.
std::optional<std::wstring> readText(const std::wstring& key, const wchar_t* value) {
    std::array<wchar_t, 4096> text = {};
    DWORD size = sizeof text;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, text.data(),
                     &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::wstring read(text.data(), size / sizeof(wchar_t));
    while (read.ends_with(L'\0')) {
        read.pop_back();
    }
    return read;
}

class Module {
  public:
    explicit Module(const std::wstring& name) : handle_(loadSystemModule(name.c_str())) {}
    ~Module() {
        if (handle_ != nullptr) {
            FreeLibrary(handle_);
        }
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    HMODULE handle() const { return handle_; }

  private:
    HMODULE handle_;
};

void checkProviderFile(Installation& found, Findings& findings) {
    const std::wstring path = systemFile(imageName);
    if (path.empty()) {
        findings.problem("TalvikCSP.dll is not installed.", "Install the package: msiexec /i Talvik-...-x64.msi");
        return;
    }
    found.provider = describeModule(path);
    if (found.provider.version != TALVIK_LIBRARY_VERSION) {
        const std::string version = found.provider.version.empty() ? "unknown" : found.provider.version;
        findings.note("TalvikCSP.dll has version " + version + ", this tool " + TALVIK_LIBRARY_VERSION + ".",
                      "Install provider and tool from one package.");
    }
}

void checkLoading(Installation& found, Findings& findings) {
    const Module module(imageName);
    found.providerLoads = module.handle() != nullptr;
    if (!found.providerLoads) {
        const DWORD error = GetLastError();
        findings.problem("TalvikCSP.dll cannot be loaded: " + systemErrorText(error),
                         error == ERROR_MOD_NOT_FOUND || error == ERROR_PROC_NOT_FOUND
                             ? "A module or function that it needs is missing: see what is said of the device library."
                             : repair);
        return;
    }
    using GetInterface = LONG(WINAPI*)(const wchar_t*, void**, DWORD);
    const auto getInterface = reinterpret_cast<GetInterface>(
        reinterpret_cast<void*>(GetProcAddress(module.handle(), "GetKeyStorageInterface")));
    void* table = nullptr;
    found.cngFaceAnswers = getInterface != nullptr && getInterface(providerName, &table, 0) == 0 && table != nullptr;
    if (!found.cngFaceAnswers) {
        findings.problem("TalvikCSP.dll does not give out its CNG functions.", repair);
    }
}

void checkCspEntry(Installation& found, Findings& findings) {
    DWORD size = sizeof found.cspType;
    RegGetValueW(HKEY_LOCAL_MACHINE, cspKey.c_str(), L"Type", RRF_RT_REG_DWORD, nullptr, &found.cspType, &size);
    found.cspImage = utf8(readText(cspKey, L"Image Path").value_or(L""));
    found.cspSigned = RegGetValueW(HKEY_LOCAL_MACHINE, cspKey.c_str(), L"Signature", RRF_RT_REG_BINARY, nullptr,
                                   nullptr, nullptr) == ERROR_SUCCESS;
    if (found.cspImage.empty()) {
        findings.problem("The provider is not in CryptoAPI's provider list.", repair);
    } else if (found.cspType != 1 || !found.cspSigned) {
        findings.problem(
            "The provider's entry in CryptoAPI's provider list is damaged: Type must be 1, Signature "
            "must be there.",
            repair);
    } else if (systemFile(readText(cspKey, L"Image Path").value_or(L"")).empty()) {
        findings.problem("CryptoAPI's provider list names " + found.cspImage + ", which does not exist.", repair);
    }
}

void checkCngEntry(Installation& found, Findings& findings) {
    found.cngImage = utf8(readText(cngKey, L"Image").value_or(L""));
    const std::wstring list = L'\0' + readText(cngListKey, L"Providers").value_or(L"") + L'\0';
    found.cngListed = list.find(L'\0' + std::wstring(providerName) + L'\0') != std::wstring::npos;
    if (found.cngImage.empty()) {
        findings.problem("The provider is not registered with CNG: NCryptOpenStorageProvider does not find it.",
                         registerCng);
    } else if (found.cngImage != utf8(imageName)) {
        findings.problem("CNG's configuration names " + found.cngImage + " instead of TalvikCSP.dll.", registerCng);
    } else if (!found.cngListed) {
        findings.problem("The provider is not in CNG's list of key storage providers.", registerCng);
    }
}

void checkLog(Installation& found, Findings& findings) {
    found.logLevel = logLevelName(readLogLevel());
    found.logFolder = utf8(logRoot().wstring());
    std::error_code problem;
    if (!std::filesystem::is_directory(logRoot().parent_path(), problem)) {
        findings.problem("The temporary folder does not exist: nothing can be logged.",
                         "Create " + utf8(logRoot().parent_path().wstring()));
    }
    if (found.logLevel == std::string("debug")) {
        findings.note(debugReveals, debugRemedy);
    } else if (found.logLevel == std::string("off")) {
        findings.note("Nothing is logged, errors neither.", "To see errors: talvik log level error");
    }
}

}  // namespace

bool isVirtualToken(const ModuleFile& library) {
    return library.description == "Talvik virtual token";
}

ModuleFile describeModule(const std::wstring& path) {
    ModuleFile described{utf8(path), "", "", ""};
    DWORD ignored = 0;
    std::string information(GetFileVersionInfoSizeW(path.c_str(), &ignored), '\0');
    if (information.empty() ||
        !GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(information.size()), information.data())) {
        return described;
    }
    void* value = nullptr;
    UINT size = 0;
    if (VerQueryValueW(information.data(), L"\\", &value, &size) && size >= sizeof(VS_FIXEDFILEINFO)) {
        const auto& fixed = *static_cast<const VS_FIXEDFILEINFO*>(value);
        char version[48];
        std::snprintf(version, sizeof version, "%u.%u.%u.%u", HIWORD(fixed.dwFileVersionMS),
                      LOWORD(fixed.dwFileVersionMS), HIWORD(fixed.dwFileVersionLS), LOWORD(fixed.dwFileVersionLS));
        described.version = version;
    }
    const auto text = [&](const wchar_t* name) {
        const std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
        const bool isThere = VerQueryValueW(information.data(), path.c_str(), &value, &size) && size > 1;
        return isThere ? utf8(static_cast<const wchar_t*>(value)) : std::string();
    };
    described.company = text(L"CompanyName");
    described.description = text(L"FileDescription");
    return described;
}

Installation inspectInstallation(Findings& findings) {
    Installation found;
    checkProviderFile(found, findings);
    if (!found.provider.path.empty()) {
        checkLoading(found, findings);
    }
    checkCspEntry(found, findings);
    checkCngEntry(found, findings);
    checkLog(found, findings);
    return found;
}

}  // namespace talvik_tool
