#include "files.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <iostream>

#include "status.h"
#include "system_text.h"
#include "token_file.h"

namespace talvik_tool {
namespace {

using virtual_token::Handle;
using virtual_token::Status;
using virtual_token::systemErrorText;
using virtual_token::TokenError;
using virtual_token::wide;

constexpr std::size_t pieceSize = 1u << 20;
constexpr std::size_t pemLineLength = 64;
constexpr std::string_view pemBegin = "-----BEGIN ";
constexpr std::string_view pemDashes = "-----";

[[noreturn]] void failFile(const char* what, const std::string& name) {
    const DWORD error = GetLastError();
    throw TokenError(Status::StorageFailure, std::string(what) + " " + name + ": " + systemErrorText(error));
}

Handle openToRead(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    return Handle(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

SecretBytes fromBase64Lines(std::string_view lines, const std::string& name) {
    std::string digits(lines);
    std::erase_if(digits, [](unsigned char c) { return std::isspace(c) != 0; });
    try {
        Bytes decoded = virtual_token::fromBase64(digits);
        SecretBytes der(decoded.begin(), decoded.end());
        SecureZeroMemory(decoded.data(), decoded.size());
        SecureZeroMemory(digits.data(), digits.size());
        return der;
    } catch (const TokenError&) {
        throw TokenError(Status::BadData, name + ": the base64 text of a PEM block is damaged");
    }
}

}  // namespace

void readInPieces(const std::string& name, const std::function<void(ByteView piece)>& take) {
    const Handle file = openToRead(wide(name));
    if (!file) {
        failFile("cannot read", name);
    }
    SecretBytes piece(pieceSize);
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr)) {
            failFile("cannot read", name);
        }
        if (got == 0) {
            return;
        }
        take(ByteView(piece).first(got));
    }
}

SecretBytes readWholeFile(const std::string& name) {
    SecretBytes content;
    readInPieces(name, [&content](ByteView piece) { content.insert(content.end(), piece.begin(), piece.end()); });
    return content;
}

void writeWholeFile(const std::string& name, ByteView content) {
    // A file of the user's own may be named ".new".
    virtual_token::replaceFile(wide(name), content, false, L".talvik-new");
}

std::vector<EncodedObject> decodeObjects(ByteView content, const std::string& name) {
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
    std::vector<EncodedObject> objects;
    std::size_t at = 0;
    while ((at = text.find(pemBegin, at)) != std::string_view::npos) {
        const std::size_t labelAt = at + pemBegin.size();
        const std::size_t body = text.find(pemDashes, labelAt);
        const std::string label(text.substr(labelAt, std::min(body, text.size()) - labelAt));
        const std::size_t end = text.find("-----END " + label + "-----", labelAt);
        if (end == std::string_view::npos || body > end) {
            throw TokenError(Status::BadData, name + ": a PEM block has no end");
        }
        const std::size_t digits = body + pemDashes.size();
        objects.push_back({label, fromBase64Lines(text.substr(digits, end - digits), name)});
        at = end;
    }
    if (objects.empty()) {
        objects.push_back({"", SecretBytes(content.begin(), content.end())});
    }
    return objects;
}

std::vector<EncodedObject> readObjects(const std::string& name) {
    return decodeObjects(readWholeFile(name), name);
}

std::string pemOf(const std::string& label, ByteView der) {
    const std::string base64 = virtual_token::toBase64(der);
    std::string pem = "-----BEGIN " + label + "-----";
    for (std::size_t i = 0; i < base64.size(); i += pemLineLength) {
        pem += "\n" + base64.substr(i, pemLineLength);
    }
    return pem + "\n-----END " + label + "-----\n";
}

void writeEncoded(const std::string& name, bool asDer, const std::string& label, ByteView der) {
    if (asDer) {
        writeWholeFile(name, der);
        return;
    }
    const std::string pem = pemOf(label, der);
    if (name.empty()) {
        std::cout << pem;
    } else {
        writeWholeFile(name, virtual_token::viewOf(pem));
    }
}

}  // namespace talvik_tool
