// The certificate stores of the current user, and what this program puts there.
#pragma once

#include <optional>

#include "certificate_context.h"

namespace talvik_tool {

// Where a certificate says that its key is: CERT_KEY_PROV_INFO_PROP_ID. A provider type of 0 means CNG.
struct KeyLink {
    std::wstring container;
    std::wstring provider;
    DWORD providerType = 0;
    DWORD keySpec = 0;
    bool operator==(const KeyLink&) const = default;
};

// What tells that this program put a certificate there, or only its link: its description, which Windows shows among
// its properties. Whoever changes that makes the certificate his own.
struct Mark {
    bool added = false;  // false: the certificate was there before, without a link
    std::string token;
    std::string before;  // the description that it had
};

std::optional<KeyLink> linkOf(const CERT_CONTEXT& certificate);
std::optional<Mark> markOf(const CERT_CONTEXT& certificate);

// All of these throw TokenError(StorageFailure) with the store's name and the system's own text.
class UserStore {
  public:
    explicit UserStore(const wchar_t* name);  // L"MY", L"CA"

    Certificate find(ByteView der) const;  // null when it is not there
    std::vector<Certificate> marked() const;

    // Puts a certificate of `token` there, or links one that is there; only a new one gets the name.
    void put(ByteView der, const std::string& token, const KeyLink* link, const std::string& friendlyName);

    // Undoes what a mark stands for: takes the certificate away, or its link.
    void takeBack(const CERT_CONTEXT& certificate);

    // Nothing is sure to last before.
    void commit();

  private:
    [[noreturn]] void fail(const char* what) const;

    std::string name_;
    Store store_;
    bool changed_ = false;
};

}  // namespace talvik_tool
