/* What Wine's <bcrypt.h> does not have of Microsoft's. */
#pragma once
#include_next <bcrypt.h>

typedef struct _BCRYPT_INTERFACE_VERSION {
    USHORT MajorVersion;
    USHORT MinorVersion;
} BCRYPT_INTERFACE_VERSION;
