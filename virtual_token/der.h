// DER, read through a cursor that knows its end, and written.
#pragma once

#include <initializer_list>

#include "bytes.h"

namespace virtual_token {

inline constexpr unsigned char derInteger = 0x02;
inline constexpr unsigned char derBitString = 0x03;
inline constexpr unsigned char derNull = 0x05;
inline constexpr unsigned char derObjectIdentifier = 0x06;
inline constexpr unsigned char derSequence = 0x30;
inline constexpr unsigned char derSet = 0x31;

struct DerElement {
    unsigned char tag;
    ByteView content;
    ByteView whole;  // header and content
};

// Every read throws TokenError(BadData) on what is not there or not DER.
class DerReader {
  public:
    explicit DerReader(ByteView der) : rest_(der) {}

    bool atEnd() const { return rest_.empty(); }
    bool nextIs(unsigned char tag) const { return !rest_.empty() && rest_[0] == tag; }
    DerElement read();
    ByteView read(unsigned char tag);  // the content of an element with this tag
    DerReader enter(unsigned char tag) { return DerReader(read(tag)); }
    void finish() const;  // nothing may follow

  private:
    ByteView rest_;
};

Bytes derElement(unsigned char tag, std::initializer_list<ByteView> contents);
Bytes derUnsigned(ByteView bigEndian);  // INTEGER

}  // namespace virtual_token
