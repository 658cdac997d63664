// The function table, and the functions of the interface that the provider does not offer.
#include "ksp/entry_points.h"
#include "ksp/outcome.h"

namespace talvik::ksp {
namespace {

constexpr NCRYPT_KEY_STORAGE_FUNCTION_TABLE KSP_FUNCTION_TABLE = {
    .Version = NCRYPT_KEY_STORAGE_INTERFACE_VERSION,
    .OpenProvider = KSPOpenProvider,
    .OpenKey = KSPOpenKey,
    .CreatePersistedKey = KSPCreatePersistedKey,
    .GetProviderProperty = KSPGetProviderProperty,
    .GetKeyProperty = KSPGetKeyProperty,
    .SetProviderProperty = KSPSetProviderProperty,
    .SetKeyProperty = KSPSetKeyProperty,
    .FinalizeKey = KSPFinalizeKey,
    .DeleteKey = KSPDeleteKey,
    .FreeProvider = KSPFreeProvider,
    .FreeKey = KSPFreeKey,
    .FreeBuffer = KSPFreeBuffer,
    .Encrypt = KSPEncrypt,
    .Decrypt = KSPDecrypt,
    .IsAlgSupported = KSPIsAlgSupported,
    .EnumAlgorithms = KSPEnumAlgorithms,
    .EnumKeys = KSPEnumKeys,
    .ImportKey = KSPImportKey,
    .ExportKey = KSPExportKey,
    .SignHash = KSPSignHash,
    .VerifySignature = KSPVerifySignature,
    .PromptUser = KSPPromptUser,
    .NotifyChangeKey = KSPNotifyChangeKey,
    .SecretAgreement = KSPSecretAgreement,
    .DeriveKey = KSPDeriveKey,
    .FreeSecret = KSPFreeSecret,
};

SECURITY_STATUS notSupported(const char* name) noexcept {
    return entryPoint(name, [=] { return fail(NTE_NOT_SUPPORTED, name, ": not supported"); });
}

}  // namespace
}  // namespace talvik::ksp

using talvik::ksp::entryPoint;
using talvik::ksp::notSupported;

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD) {
    return entryPoint("GetKeyStorageInterface", [=]() -> SECURITY_STATUS {
        if (ppFunctionTable == nullptr) {
            return talvik::ksp::fail(NTE_INVALID_PARAMETER, "GetKeyStorageInterface: ppFunctionTable is null");
        }
        // The system only reads the table, though its declaration does not say so.
        *ppFunctionTable = const_cast<NCRYPT_KEY_STORAGE_FUNCTION_TABLE*>(&talvik::ksp::KSP_FUNCTION_TABLE);
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE*, DWORD) {
    return notSupported("KSPNotifyChangeKey");
}

SECURITY_STATUS WINAPI KSPSecretAgreement(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE,
                                          NCRYPT_SECRET_HANDLE*, DWORD) {
    return notSupported("KSPSecretAgreement");
}

SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR, NCryptBufferDesc*, PBYTE, DWORD,
                                    DWORD*, ULONG) {
    return notSupported("KSPDeriveKey");
}

SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE) {
    return entryPoint("KSPFreeSecret", []() -> SECURITY_STATUS { return ERROR_SUCCESS; });
}
