// Data for the device, whose lengths are signed.
#pragma once

#include <windows.h>

#include "token/device_library.h"

namespace talvik::csp {

// Calls `use` with each piece of `size` bytes at `data` and its length in turn, once for no bytes, until one is
// refused; gives the last status.
template <class Byte, class Use>
int inPieces(Byte* data, DWORD size, Use use, DWORD largestPiece = 0x40000000) {
    for (; size > largestPiece; data += largestPiece, size -= largestPiece) {
        const int status = use(data, static_cast<int>(largestPiece));
        if (status != TALVIK_STATUS_OK) {
            return status;
        }
    }
    return use(data, static_cast<int>(size));
}

}  // namespace talvik::csp
