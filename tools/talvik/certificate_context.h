// Certificates as CRYPT32 holds them, and what is told of one.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>
#include <vector>

#include "bytes.h"

namespace talvik_tool {

using virtual_token::Bytes;
using virtual_token::ByteView;

template <auto release>
struct Releaser {
    template <class Pointer>
    void operator()(Pointer pointer) const {
        release(pointer);
    }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, Releaser<CertFreeCertificateContext>>;
inline void closeStore(HCERTSTORE store) {
    CertCloseStore(store, 0);
}
using Store = std::unique_ptr<void, Releaser<closeStore>>;

Certificate parseCertificate(ByteView der);  // null when it is none

ByteView derOf(const CERT_CONTEXT& certificate);
std::string subjectOf(const CERT_CONTEXT& certificate);
std::string issuerOf(const CERT_CONTEXT& certificate);
std::string shortNameOf(const CERT_CONTEXT& certificate);  // the common name, or what comes next to it
std::string dateText(const FILETIME& time);                // "2027-11-24", UTC
std::string thumbprintOf(ByteView der);                    // SHA-1, upper-case hexadecimal, as Windows shows it
long long daysLeft(const CERT_CONTEXT& certificate);       // until it expires; below zero when it has

// Names of key usages and extended key usages: "digitalSignature", "clientAuth"; others by their identifier.
std::vector<std::string> usagesOf(const CERT_CONTEXT& certificate);

bool isSelfIssued(const CERT_CONTEXT& certificate);
bool isAuthority(const CERT_CONTEXT& certificate);  // basic constraints

// `leaf` and those of `pool` that issued it and one another, nearest first, by their names.
std::vector<Bytes> chainOf(ByteView leaf, const std::vector<Bytes>& pool);

// One table for what requests ask for and certificates show: a bit of the key usage, most significant first, or the
// identifier of an extended key usage.
struct UsageName {
    const char* name;
    int bit;  // -1 for an extended key usage
    const char* oid;
};
inline constexpr UsageName certificateUsages[] = {
    {"digitalSignature", 0, nullptr},
    {"nonRepudiation", 1, nullptr},
    {"keyEncipherment", 2, nullptr},
    {"dataEncipherment", 3, nullptr},
    {"keyAgreement", 4, nullptr},
    {"keyCertSign", 5, nullptr},
    {"cRLSign", 6, nullptr},
    {"serverAuth", -1, "1.3.6.1.5.5.7.3.1"},
    {"clientAuth", -1, "1.3.6.1.5.5.7.3.2"},
    {"codeSigning", -1, "1.3.6.1.5.5.7.3.3"},
    {"emailProtection", -1, "1.3.6.1.5.5.7.3.4"},
    {"timeStamping", -1, "1.3.6.1.5.5.7.3.8"},
    {"smartcardLogon", -1, "1.3.6.1.4.1.311.20.2.2"},
};

}  // namespace talvik_tool
