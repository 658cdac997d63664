// The files that commands read and write, whole, and the encodings of what is in them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bytes.h"

namespace talvik_tool {

using virtual_token::Bytes;
using virtual_token::ByteView;
using virtual_token::SecretBytes;

// Both throw TokenError(StorageFailure) with the file's name and the system's own text.
SecretBytes readWholeFile(const std::string& name);
// Under a temporary name first: what was there before stays until the new content is complete.
void writeWholeFile(const std::string& name, ByteView content);

// Reads a file of any size piece by piece.
void readInPieces(const std::string& name, const std::function<void(ByteView piece)>& take);

// One encoded object of a file: with the label of its PEM block, or without one when the file is the DER itself.
struct EncodedObject {
    std::string label;
    SecretBytes der;
};

// Every block of a PEM file, in order, or the file as it is. `name` is for what is said of a broken block.
std::vector<EncodedObject> decodeObjects(ByteView content, const std::string& name);
std::vector<EncodedObject> readObjects(const std::string& name);

std::string pemOf(const std::string& label, ByteView der);

// Writes DER, or PEM with this label; to the standard output without a name.
void writeEncoded(const std::string& name, bool asDer, const std::string& label, ByteView der);

}  // namespace talvik_tool
