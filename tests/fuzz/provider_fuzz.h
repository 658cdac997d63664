// Calls on both faces as an input chooses them, for the fuzz targets and for the many-thread tests.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <functional>
#include <string>

#include "csp/entry_points.h"
#include "fuzz/input.h"
#include "ksp/entry_points.h"

// On the honest token; opened once for the process and never released.
HCRYPTPROV tokenContext();
NCRYPT_PROV_HANDLE tokenProvider();
HCRYPTPROV newContext(const char* container, DWORD flags);  // 0 when it fails

// The honest token's key, opened for one run.
struct CspKey {
    CspKey() { CPGetUserKey(tokenContext(), AT_KEYEXCHANGE, &handle); }
    ~CspKey() { CPDestroyKey(tokenContext(), handle); }
    CspKey(const CspKey&) = delete;
    CspKey& operator=(const CspKey&) = delete;
    HCRYPTKEY handle = 0;
};

// A name that the key storage face knows, or any other text. Ends with a NUL.
Guarded propertyName(Input& input);
Guarded blobTypeName(Input& input);
Guarded algorithmName(Input& input);

// A write past a field into the next of the same record is within the heap block: what the record says of its fields
// has to hold instead. Ends the process when it does not.
void checkCspKey(HCRYPTKEY key);
void checkCngKey(NCRYPT_KEY_HANDLE key);
void checkHash(HCRYPTHASH hash);

// Makes the calls that `input` chooses until it is at its end, on both faces and in any order an application could make
// them: handles live from call to call, are used with other handles, released early or never. Handles are addresses, so
// only live ones and null are ever passed. `opened` is called when the first of each face is open.
void callInAnyOrder(Input& input, const std::function<void()>& opened);
