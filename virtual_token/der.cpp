#include "der.h"

#include "status.h"

namespace virtual_token {
namespace {

void appendLength(Bytes& der, std::size_t length) {
    if (length < 0x80) {
        der.push_back(static_cast<unsigned char>(length));
        return;
    }
    Bytes digits;
    for (; length > 0; length >>= 8) {
        digits.push_back(static_cast<unsigned char>(length & 0xFF));
    }
    der.push_back(static_cast<unsigned char>(0x80 | digits.size()));
    der.insert(der.end(), digits.rbegin(), digits.rend());
}

}  // namespace

DerElement DerReader::read() {
    require(rest_.size() >= 2, Status::BadData);
    std::size_t header = 2;
    std::size_t length = rest_[1];
    if (length >= 0x80) {
        const std::size_t digits = length & 0x7F;
        require(digits >= 1 && digits <= 4 && rest_.size() >= 2 + digits, Status::BadData);
        length = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            length = length << 8 | rest_[2 + i];
        }
        header += digits;
    }
    require(length <= rest_.size() - header, Status::BadData);
    const DerElement element{rest_[0], rest_.subspan(header, length), rest_.first(header + length)};
    rest_ = rest_.subspan(header + length);
    return element;
}

ByteView DerReader::read(unsigned char tag) {
    require(nextIs(tag), Status::BadData);
    return read().content;
}

void DerReader::finish() const {
    require(atEnd(), Status::BadData);
}

Bytes derElement(unsigned char tag, std::initializer_list<ByteView> contents) {
    std::size_t length = 0;
    for (const ByteView part : contents) {
        length += part.size();
    }
    Bytes der{tag};
    appendLength(der, length);
    for (const ByteView part : contents) {
        der.insert(der.end(), part.begin(), part.end());
    }
    return der;
}

Bytes derUnsigned(ByteView bigEndian) {
    while (bigEndian.size() > 1 && bigEndian[0] == 0) {
        bigEndian = bigEndian.subspan(1);
    }
    constexpr unsigned char positive[] = {0};
    const bool guarded = !bigEndian.empty() && bigEndian[0] >= 0x80;
    return derElement(derInteger, {guarded ? ByteView(positive) : ByteView(), bigEndian});
}

}  // namespace virtual_token
