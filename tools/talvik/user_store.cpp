#include "user_store.h"

#include <algorithm>

#include "status.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::Status;
using virtual_token::systemErrorText;
using virtual_token::TokenError;
using virtual_token::utf8;
using virtual_token::wide;

constexpr std::string_view addedMark = "Published by talvik certs, token ";
constexpr std::string_view linkedMark = "Linked by talvik certs, token ";
constexpr std::string_view beforeMark = "; ";  // an identifier holds neither
constexpr DWORD encodings = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

Bytes propertyOf(const CERT_CONTEXT& certificate, DWORD property) {
    DWORD size = 0;
    Bytes value;
    if (CertGetCertificateContextProperty(&certificate, property, nullptr, &size)) {
        value.resize(size);
        value.resize(CertGetCertificateContextProperty(&certificate, property, value.data(), &size) ? size : 0);
    }
    return value;
}

void setBlob(const CERT_CONTEXT& certificate, DWORD property, ByteView value) {
    CRYPT_DATA_BLOB blob{static_cast<DWORD>(value.size()), const_cast<BYTE*>(value.data())};
    CertSetCertificateContextProperty(&certificate, property, 0, &blob);
}

// Handles do not travel, and what the store computes it computes anew.
bool isCopied(DWORD property) {
    constexpr DWORD left[] = {CERT_KEY_PROV_HANDLE_PROP_ID, CERT_KEY_CONTEXT_PROP_ID,
                              CERT_KEY_PROV_INFO_PROP_ID,   CERT_HASH_PROP_ID,
                              CERT_MD5_HASH_PROP_ID,        CERT_SIGNATURE_HASH_PROP_ID,
                              CERT_ACCESS_STATE_PROP_ID,    CERT_DESCRIPTION_PROP_ID};
    return std::ranges::find(left, property) == std::end(left);
}

std::string textProperty(const CERT_CONTEXT& certificate, DWORD property) {
    const Bytes held = propertyOf(certificate, property);
    std::wstring text(reinterpret_cast<const wchar_t*>(held.data()), held.size() / sizeof(wchar_t));
    text.erase(std::min(text.find(L'\0'), text.size()));
    return utf8(text);
}

void setText(const CERT_CONTEXT& certificate, DWORD property, const std::string& text) {
    const std::wstring value = wide(text);
    if (!value.empty()) {
        setBlob(certificate, property,
                {reinterpret_cast<const unsigned char*>(value.c_str()), (value.size() + 1) * sizeof(wchar_t)});
    }
}

// A certificate of its own with what others have noted about `certificate`, but without link and description.
Certificate copyWithoutLink(const CERT_CONTEXT& certificate) {
    Certificate copy = parseCertificate(derOf(certificate));
    for (DWORD property = 0; (property = CertEnumCertificateContextProperties(&certificate, property)) != 0;) {
        const Bytes value = isCopied(property) ? propertyOf(certificate, property) : Bytes();
        if (!value.empty()) {
            setBlob(*copy, property, value);
        }
    }
    return copy;
}

}  // namespace

std::optional<KeyLink> linkOf(const CERT_CONTEXT& certificate) {
    const Bytes held = propertyOf(certificate, CERT_KEY_PROV_INFO_PROP_ID);
    if (held.size() < sizeof(CRYPT_KEY_PROV_INFO)) {
        return std::nullopt;
    }
    const auto& info = *reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(held.data());
    const auto text = [](const wchar_t* from) { return std::wstring(from != nullptr ? from : L""); };
    return KeyLink{text(info.pwszContainerName), text(info.pwszProvName), info.dwProvType, info.dwKeySpec};
}

std::optional<Mark> markOf(const CERT_CONTEXT& certificate) {
    const std::string text = textProperty(certificate, CERT_DESCRIPTION_PROP_ID);
    for (const std::string_view mark : {addedMark, linkedMark}) {
        if (text.starts_with(mark)) {
            const std::size_t end = std::min(text.find(beforeMark), text.size());
            return Mark{mark == addedMark, text.substr(mark.size(), end - mark.size()),
                        end == text.size() ? "" : text.substr(end + beforeMark.size())};
        }
    }
    return std::nullopt;
}

UserStore::UserStore(const wchar_t* name)
    : name_(utf8(name)), store_(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, name)) {
    if (!store_) {
        fail("cannot be opened");
    }
}

void UserStore::fail(const char* what) const {
    const DWORD error = GetLastError();
    throw TokenError(Status::StorageFailure,
                     "the user's certificate store " + name_ + " " + what + ": " + systemErrorText(error));
}

Certificate UserStore::find(ByteView der) const {
    const Certificate wanted = parseCertificate(der);
    return Certificate(
        CertFindCertificateInStore(store_.get(), encodings, 0, CERT_FIND_EXISTING, wanted.get(), nullptr));
}

std::vector<Certificate> UserStore::marked() const {
    std::vector<Certificate> found;
    for (const CERT_CONTEXT* each = nullptr; (each = CertEnumCertificatesInStore(store_.get(), each)) != nullptr;) {
        if (markOf(*each)) {
            found.emplace_back(CertDuplicateCertificateContext(each));
        }
    }
    return found;
}

void UserStore::replace(const Certificate& fresh) {
    if (!CertAddCertificateContextToStore(store_.get(), fresh.get(), CERT_STORE_ADD_REPLACE_EXISTING, nullptr)) {
        fail("cannot be written");
    }
}

void UserStore::put(ByteView der, const Mark& mark, const KeyLink* link, const std::string& friendlyName) {
    const Certificate present = find(der);
    const Certificate fresh = present ? copyWithoutLink(*present) : parseCertificate(der);
    std::string note = std::string(mark.added ? addedMark : linkedMark) + mark.token;
    if (present) {
        const std::optional<Mark> old = markOf(*present);
        const std::string before = old ? old->before : textProperty(*present, CERT_DESCRIPTION_PROP_ID);
        note += before.empty() ? "" : std::string(beforeMark) + before;
    }
    setText(*fresh, CERT_DESCRIPTION_PROP_ID, note);
    if (link != nullptr) {
        CRYPT_KEY_PROV_INFO info{const_cast<wchar_t*>(link->container.c_str()),
                                 const_cast<wchar_t*>(link->provider.c_str()),
                                 link->providerType,
                                 0,
                                 0,
                                 nullptr,
                                 link->keySpec};
        CertSetCertificateContextProperty(fresh.get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &info);
    }
    if (!present) {
        setText(*fresh, CERT_FRIENDLY_NAME_PROP_ID, friendlyName);
    }
    replace(fresh);
}

void UserStore::takeBack(const CERT_CONTEXT& certificate) {
    const std::optional<Mark> mark = markOf(certificate);
    if (mark && !mark->added) {
        const Certificate restored = copyWithoutLink(certificate);
        setText(*restored, CERT_DESCRIPTION_PROP_ID, mark->before);
        replace(restored);
    } else if (!CertDeleteCertificateFromStore(CertDuplicateCertificateContext(&certificate))) {
        fail("cannot be written");
    }
}

void UserStore::commit() {
    if (!CertControlStore(store_.get(), 0, CERT_STORE_CTRL_COMMIT, nullptr)) {
        fail("cannot be written");
    }
}

}  // namespace talvik_tool
