// The provider as it is installed: its file, its entries in the configuration of both faces, its log.
#pragma once

#include <string>

#include "doctor_findings.h"

namespace talvik_tool {

inline constexpr wchar_t providerName[] = L"Talvik Cryptographic Provider CSP";

struct ModuleFile {
    std::string path;     // empty when there is none
    std::string version;  // "4.0.3.2"; empty when the file does not tell
    std::string company;
    std::string description;  // tells the virtual token from a maker's library
};

struct Installation {
    ModuleFile provider;
    bool providerLoads = false;
    bool cngFaceAnswers = false;

    std::string cspImage;  // CryptoAPI's entry; empty when there is none
    unsigned long cspType = 0;
    bool cspSigned = false;

    std::string cngImage;  // CNG's entry; empty when there is none
    bool cngListed = false;

    std::string logLevel;  // "debug", "error" or "off"
    std::string logFolder;
};

// Whether this device library is the one of this package, whose tokens are files.
bool isVirtualToken(const ModuleFile& library);

// The version information of a loaded module or a file.
ModuleFile describeModule(const std::wstring& path);

Installation inspectInstallation(Findings& findings);

}  // namespace talvik_tool
