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

std::string textProperty(const CERT_CONTEXT& certificate, DWORD property) {
    const Bytes held = propertyOf(certificate, property);
    std::wstring text(reinterpret_cast<const wchar_t*>(held.data()), held.size() / sizeof(wchar_t));
    text.erase(std::min(text.find(L'\0'), text.size()));
    return utf8(text);
}

// Nothing where the text is empty.
void setText(const CERT_CONTEXT& certificate, DWORD property, const std::string& text) {
    std::wstring value = wide(text);
    CRYPT_DATA_BLOB blob{static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)),
                         reinterpret_cast<BYTE*>(value.data())};
    CertSetCertificateContextProperty(&certificate, property, 0, value.empty() ? nullptr : &blob);
}

std::string noteOf(const Mark& mark) {
    return std::string(mark.added ? addedMark : linkedMark) + mark.token +
           (mark.before.empty() ? "" : std::string(beforeMark) + mark.before);
}

void setLink(const CERT_CONTEXT& certificate, const KeyLink& link) {
    CRYPT_KEY_PROV_INFO info{const_cast<wchar_t*>(link.container.c_str()),
                             const_cast<wchar_t*>(link.provider.c_str()),
                             link.providerType,
                             0,
                             0,
                             nullptr,
                             link.keySpec};
    CertSetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info);
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

// By its hash: issuer and serial number, which not every system's CERT_FIND_EXISTING looks beyond, are those of two
// certificates where an authority was made anew under its old name.
Certificate UserStore::find(ByteView der) const {
    const Certificate parsed = parseCertificate(der);
    if (!parsed) {
        return nullptr;
    }
    Bytes hash = propertyOf(*parsed, CERT_SHA1_HASH_PROP_ID);
    const CRYPT_HASH_BLOB wanted{static_cast<DWORD>(hash.size()), hash.data()};
    return Certificate(CertFindCertificateInStore(store_.get(), encodings, 0, CERT_FIND_SHA1_HASH, &wanted, nullptr));
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

void UserStore::put(ByteView der, const std::string& token, const KeyLink* link, const std::string& friendlyName) {
    Certificate certificate = find(der);
    const bool present = certificate != nullptr;
    Mark mark{true, token, ""};
    if (!present) {
        certificate = parseCertificate(der);
    } else if (const auto old = markOf(*certificate)) {
        mark = {old->added, token, old->before};
    } else {
        mark = {false, token, textProperty(*certificate, CERT_DESCRIPTION_PROP_ID)};
    }
    // The mark first: a link without one is somebody else's.
    setText(*certificate, CERT_DESCRIPTION_PROP_ID, noteOf(mark));
    if (link != nullptr) {
        setLink(*certificate, *link);
    }
    if (!present) {
        setText(*certificate, CERT_FRIENDLY_NAME_PROP_ID, friendlyName);
        if (!CertAddCertificateContextToStore(store_.get(), certificate.get(), CERT_STORE_ADD_ALWAYS, nullptr)) {
            fail("cannot be written");
        }
    }
    changed_ = true;
}

void UserStore::takeBack(const CERT_CONTEXT& certificate) {
    const std::optional<Mark> mark = markOf(certificate);
    if (mark && !mark->added) {
        CertSetCertificateContextProperty(&certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, nullptr);
        setText(certificate, CERT_DESCRIPTION_PROP_ID, mark->before);
    } else if (!CertDeleteCertificateFromStore(CertDuplicateCertificateContext(&certificate))) {
        fail("cannot be written");
    }
    changed_ = true;
}

// By force: a change of properties alone is not everywhere taken for a change of the store.
void UserStore::commit() {
    if (changed_ &&
        !CertControlStore(store_.get(), CERT_STORE_CTRL_COMMIT_FORCE_FLAG, CERT_STORE_CTRL_COMMIT, nullptr)) {
        fail("cannot be written");
    }
    changed_ = false;
}

}  // namespace talvik_tool
