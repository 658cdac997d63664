// The device library as programs of this machine find it, and the tokens that it shows.
//
// The library is loaded when it is asked for: a machine without it is one of the things to diagnose.
#pragma once

#include <string>
#include <vector>

#include "doctor_findings.h"
#include "doctor_system.h"

namespace talvik_tool {

struct CertificateFacts {
    std::string subject;
    std::string expires;  // "2027-11-24", UTC
    bool matchesKey = false;
    bool published = false;  // in the user's store with a link
};

struct ContainerFacts {
    std::string name;  // upper-case hexadecimal text of the key identifier
    std::string keyType;
    std::string usage;
    std::string label;
    std::vector<CertificateFacts> certificates;
    bool signs = false;
};

struct TokenFacts {
    std::string id;
    std::string firmware;
    bool signedOn = false;
    bool takesNoPin = false;  // which the findings tell
    int initStatus = 0;
    std::size_t aesKeys = 0;
    std::vector<ContainerFacts> containers;
};

struct DeviceFacts {
    ModuleFile library;
    std::size_t operations = 0;  // of those that the provider needs
    bool inspected = false;      // whether the tokens were to be looked at
    std::vector<TokenFacts> tokens;
};

// How many operations the provider needs.
std::size_t neededOperations();

DeviceFacts inspectDevices(bool withTokens, Findings& findings);

}  // namespace talvik_tool
