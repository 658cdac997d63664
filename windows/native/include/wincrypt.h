/* What Wine's <wincrypt.h> does not have of Microsoft's. */
#pragma once
#include_next <wincrypt.h>

#define CRYPT_IMPL_REMOVABLE 8
#define CRYPT_SGC_ENUM 4
#define PP_CERTCHAIN 9
