// A device library that obeys the fuzzer: it fails when told to, reports lengths that are not so, and changes its lists
// from call to call. What it may not do is what no caller could survive: write past a buffer, or report more bytes than
// it has allocated and the caller could believe.
#pragma once

#include "fuzz/input.h"

namespace lying {

// What the library does from here on; with no bytes left it is honest, with one token that holds one key pair.
// Calls from other threads than this one are always answered honestly.
void follow(Input script);

}  // namespace lying
