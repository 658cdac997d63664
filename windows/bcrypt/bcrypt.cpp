// A bcrypt.dll whose four configuration functions keep a registration where Windows keeps it, which the emulator's own
// does not do. Two variables of the environment script it, read at every call:
//   TALVIK_BCRYPT_CALLS  a file that receives one line for each call, with all its arguments
//   TALVIK_BCRYPT_FAIL   "NAME=STATUS": that function answers STATUS (hexadecimal) and does nothing
// Compiled with BCRYPT_WITHOUT_CONTEXT_FUNCTIONS it lacks the two functions for the provider list.
#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr NTSTATUS nameCollision = static_cast<NTSTATUS>(0xC0000035);
constexpr NTSTATUS notFound = static_cast<NTSTATUS>(0xC0000225);
constexpr NTSTATUS accessDenied = static_cast<NTSTATUS>(0xC0000022);

std::string variable(const char* name) {
    char value[1024] = {};
    const DWORD length = GetEnvironmentVariableA(name, value, sizeof value);
    return std::string(value, length < sizeof value ? length : 0);
}

std::string narrow(const wchar_t* text) {
    return text ? '"' + std::string(text, text + std::wcslen(text)) + '"' : "none";
}

std::string hex(ULONG number) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08lX", number);
    return digits;
}

void record(const std::string& call) {
    const HANDLE file = CreateFileA(variable("TALVIK_BCRYPT_CALLS").c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        const std::string line = call + '\n';
        DWORD written = 0;
        WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
        CloseHandle(file);
    }
}

// Records the call and answers the status that it is scripted to fail with, or 0.
NTSTATUS scripted(const std::string& function, const std::string& arguments) {
    record(function + arguments);
    const std::string failing = variable("TALVIK_BCRYPT_FAIL");
    return failing.starts_with(function + '=')
               ? static_cast<NTSTATUS>(std::strtoul(failing.c_str() + function.size() + 1, nullptr, 16))
               : 0;
}

std::wstring cryptographyKey(const std::wstring& below) {
    return L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\" + below;
}

NTSTATUS statusOf(LSTATUS error) {
    return error == ERROR_SUCCESS ? 0 : error == ERROR_FILE_NOT_FOUND ? notFound : accessDenied;
}

LSTATUS setTexts(const std::wstring& key, const wchar_t* value, const std::vector<std::wstring>& texts) {
    std::wstring joined;
    for (const std::wstring& text : texts) {
        joined.append(text).append(1, L'\0');
    }
    joined.append(1, L'\0');
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, REG_MULTI_SZ, joined.data(),
                           static_cast<DWORD>(joined.size() * sizeof(wchar_t)));
}

}  // namespace

extern "C" {

// Only user-mode images with one interface are kept: the tests register nothing else.
__declspec(dllexport) NTSTATUS WINAPI
    BCryptRegisterProvider(const wchar_t* provider, ULONG flags, CRYPT_PROVIDER_REG* registration) {
    const CRYPT_IMAGE_REG& image = *registration->pUM;
    const CRYPT_INTERFACE_REG& offered = *image.rgpInterfaces[0];
    if (const NTSTATUS status = scripted(
            "BCryptRegisterProvider",
            " " + narrow(provider) + " flags=" + hex(flags) + " aliases=" + std::to_string(registration->cAliases) +
                (registration->rgpszAliases ? "!" : "") + " kernel=" + (registration->pKM ? "some" : "none") +
                " image=" + narrow(image.pszImage) + " interfaces=" + std::to_string(image.cInterfaces) +
                " interface=" + hex(offered.dwInterface) + " flags=" + hex(offered.dwFlags) +
                " functions=" + std::to_string(offered.cFunctions) + " " + narrow(offered.rgpszFunctions[0]))) {
        return status;
    }
    const std::wstring key = cryptographyKey(L"Providers\\") + provider;
    HKEY made = nullptr;
    DWORD disposition = 0;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, (key + L"\\UM\\00010001").c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                        &made, &disposition) != ERROR_SUCCESS) {
        return accessDenied;
    }
    RegCloseKey(made);
    if (disposition == REG_OPENED_EXISTING_KEY) {
        return nameCollision;
    }
    setTexts(key + L"\\UM\\00010001", L"Functions", {offered.rgpszFunctions[0]});
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, (key + L"\\UM\\00010001").c_str(), L"Flags", REG_DWORD, &offered.dwFlags,
                    sizeof offered.dwFlags);
    return statusOf(RegSetKeyValueW(HKEY_LOCAL_MACHINE, (key + L"\\UM").c_str(), L"Image", REG_SZ, image.pszImage,
                                    static_cast<DWORD>((std::wcslen(image.pszImage) + 1) * sizeof(wchar_t))));
}

__declspec(dllexport) NTSTATUS WINAPI BCryptUnregisterProvider(const wchar_t* provider) {
    if (const NTSTATUS status = scripted("BCryptUnregisterProvider", " " + narrow(provider))) {
        return status;
    }
    return statusOf(RegDeleteTreeW(HKEY_LOCAL_MACHINE, (cryptographyKey(L"Providers\\") + provider).c_str()));
}

#ifndef BCRYPT_WITHOUT_CONTEXT_FUNCTIONS

extern "C++" {
namespace {

const std::wstring functionListKey = cryptographyKey(L"Configuration\\Local\\Default\\00010001\\KEY_STORAGE");

std::vector<std::wstring> texts(const std::wstring& key, const wchar_t* value) {
    wchar_t joined[4096] = {};
    DWORD size = sizeof joined - 2 * sizeof(wchar_t);
    std::vector<std::wstring> found;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_MULTI_SZ, nullptr, joined, &size) ==
        ERROR_SUCCESS) {
        for (const wchar_t* text = joined; *text != L'\0'; text += found.back().size() + 1) {
            found.emplace_back(text);
        }
    }
    return found;
}

std::string contextFunction(ULONG table, const wchar_t* context, ULONG interfaceId, const wchar_t* function,
                            const wchar_t* provider) {
    return " table=" + std::to_string(table) + " context=" + narrow(context) + " interface=" + hex(interfaceId) + " " +
           narrow(function) + " " + narrow(provider);
}

}  // namespace
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptAddContextFunctionProvider(ULONG table, const wchar_t* context, ULONG interfaceId, const wchar_t* function,
                                     const wchar_t* provider, ULONG position) {
    if (const NTSTATUS status =
            scripted("BCryptAddContextFunctionProvider",
                     contextFunction(table, context, interfaceId, function, provider) + " position=" + hex(position))) {
        return status;
    }
    std::vector<std::wstring> providers = texts(functionListKey, L"Providers");
    providers.insert(position == CRYPT_PRIORITY_BOTTOM ? providers.end() : providers.begin(), provider);
    return statusOf(setTexts(functionListKey, L"Providers", providers));
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptRemoveContextFunctionProvider(ULONG table, const wchar_t* context, ULONG interfaceId, const wchar_t* function,
                                        const wchar_t* provider) {
    if (const NTSTATUS status = scripted("BCryptRemoveContextFunctionProvider",
                                         contextFunction(table, context, interfaceId, function, provider))) {
        return status;
    }
    std::vector<std::wstring> providers = texts(functionListKey, L"Providers");
    if (std::erase(providers, provider) == 0) {
        return notFound;
    }
    return statusOf(setTexts(functionListKey, L"Providers", providers));
}

#endif
}
