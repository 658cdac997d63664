// The 26 functions of the key storage interface, in the order of its table. The system reaches them through the table
// alone; none is exported by name. Handles are addresses of objects of this module and belong to the caller until the
// matching KSPFree*. Buffers that a function allocates are released with KSPFreeBuffer.
#pragma once

#include <type_traits>
#include <utility>

#include "ksp/ncrypt_provider.h"

namespace talvik::ksp {

// The type of the function that a member of the table points to. The parameters are those of the table.
template <auto Member>
using FunctionOf =
    std::remove_pointer_t<std::remove_cvref_t<decltype(std::declval<NCRYPT_KEY_STORAGE_FUNCTION_TABLE>().*Member)>>;

}  // namespace talvik::ksp

extern "C" {

// Opens on the first attached token, or on none. The name is not examined.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::OpenProvider> KSPOpenProvider;

// By the 32 upper-case hex digits of a key's identifier; binds the provider to the token that holds the key. Calls that
// have begun go on with the token that they began with.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::OpenKey> KSPOpenKey;

// "RSA", "ECDSA_P256", "ECDSA_P384" or "ECDSA_P521". Nothing happens on the token before KSPFinalizeKey; the token
// names the key itself.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::CreatePersistedKey> KSPCreatePersistedKey;

// Properties. Texts are UTF-16 with their NUL; *pcbResult receives the size in bytes whether the buffer is null, short
// or large enough.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::GetProviderProperty> KSPGetProviderProperty;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::GetKeyProperty> KSPGetKeyProperty;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::SetProviderProperty> KSPSetProviderProperty;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::SetKeyProperty> KSPSetKeyProperty;

// Makes the key pair on the token; once, and harmless afterwards. Of dwFlags NCRYPT_SILENT_FLAG counts, here and for
// deletion: no PIN is asked for.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FinalizeKey> KSPFinalizeKey;

// Deletes the key pair from the token; the handle stays until KSPFreeKey.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::DeleteKey> KSPDeleteKey;

talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeProvider> KSPFreeProvider;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeKey> KSPFreeKey;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeBuffer> KSPFreeBuffer;

// RSA with the key pair, or AES with the key that the handle carries. RSA ciphertexts come most significant byte first.
// Padding is chosen by dwFlags alone; the chaining mode and the initialisation vector are key properties.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::Encrypt> KSPEncrypt;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::Decrypt> KSPDecrypt;

talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::IsAlgSupported> KSPIsAlgSupported;

// The list is one block, names included. dwAlgOperations 0 lists every algorithm.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::EnumAlgorithms> KSPEnumAlgorithms;

// One key a call, as the token listed them at the first; then NTE_NO_MORE_ITEMS. Each name is one block, and so is the
// state.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::EnumKeys> KSPEnumKeys;

// RSA public keys stay in the handle. AES keys go to the token, except those that come encrypted to the key pair
// hImportKey, which the handle carries.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::ImportKey> KSPImportKey;

// RSA public keys, as RSAPUBLICBLOB, PUBLICBLOB or CAPIPUBLICBLOB, always with the exponent 65537.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::ExportKey> KSPExportKey;

// Signatures come most significant byte first, ECDSA ones as r and s side by side. The padding is chosen by dwFlags
// alone, PKCS #1 v1.5 unless BCRYPT_PAD_PSS is set; PSS needs firmware 2.0.0 or later.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::SignHash> KSPSignHash;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::VerifySignature> KSPVerifySignature;

// Asks for the PIN unless the token needs none now.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::PromptUser> KSPPromptUser;

// Not offered.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::NotifyChangeKey> KSPNotifyChangeKey;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::SecretAgreement> KSPSecretAgreement;
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::DeriveKey> KSPDeriveKey;

// Nothing to free: no secret is ever made.
talvik::ksp::FunctionOf<&NCRYPT_KEY_STORAGE_FUNCTION_TABLE::FreeSecret> KSPFreeSecret;

}  // extern "C"
