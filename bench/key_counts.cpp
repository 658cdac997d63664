// Tokens with few and with many keys. A device library that does nothing but list keys is behind the provider.
#include <vector>

#include "level_query.h"
#include "listing_library.h"
#include "sections.h"
#include "sequences.h"
#include "token/token_records.h"

namespace talvik::bench {
namespace {

constexpr unsigned int keyCounts[] = {1, 100, 1000, 10000};

struct Operation {
    const char* id;
    const char* name;
    Work work;
};

void enumerateContainers(const Provider& provider, HCRYPTPROV context) {
    char name[64];
    DWORD size = sizeof name;
    DWORD flag = CRYPT_FIRST;
    while (provider.getProvParam(context, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flag) != FALSE) {
        flag = CRYPT_NEXT;
        size = sizeof name;
    }
    require(GetLastError() == ERROR_NO_MORE_ITEMS, "CPGetProvParam(PP_ENUMCONTAINERS)");
}

void enumerateKeys(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp, NCRYPT_PROV_HANDLE provider) {
    NCryptKeyName* name = nullptr;
    void* state = nullptr;
    SECURITY_STATUS status = ERROR_SUCCESS;
    while ((status = ksp.EnumKeys(provider, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
        ksp.FreeBuffer(name);
    }
    ksp.FreeBuffer(state);
    require(status == NTE_NO_MORE_ITEMS, "KSPEnumKeys");
}

// On the last key that the token lists.
void measureKeyCount(const Provider& provider, unsigned int count, Json& rows) {
    const std::string container = containerNameOf(talvik_getKeyPairList("LISTING", nullptr).back());
    const std::wstring keyName = widened(container);
    const Context context(provider, container.c_str());
    NCRYPT_PROV_HANDLE kspProvider = 0;
    requireStatus(provider.ksp->OpenProvider(&kspProvider, nullptr, 0), "KSPOpenProvider");
    const Bytes message(1024, 0x5A);

    const Operation operations[] = {
        {"acquire", "CSP: acquire a context by name, release it",
         [&] { const Context acquired(provider, container.c_str()); }},
        {"userkey", "CSP: get the user key, destroy it",
         [&] {
             HCRYPTKEY key = 0;
             require(provider.getUserKey(context, AT_SIGNATURE, &key), "CPGetUserKey");
             provider.destroyKey(context, key);
         }},
        {"sign", "CSP: hash 1 KiB, sign, destroy", [&] { signThroughCsp(provider, context, message); }},
        {"containers", "CSP: enumerate all containers", [&] { enumerateContainers(provider, context); }},
        {"open", "CNG: open a key by name, free it",
         [&] {
             NCRYPT_KEY_HANDLE key = 0;
             requireStatus(provider.ksp->OpenKey(kspProvider, &key, keyName.c_str(), 0, 0), "KSPOpenKey");
             provider.ksp->FreeKey(kspProvider, key);
         }},
        {"keys", "CNG: enumerate all keys", [&] { enumerateKeys(*provider.ksp, kspProvider); }},
    };
    const Work copyList = [] { const std::vector<TalvikKeyPair> copy = talvik_getKeyPairList("LISTING", nullptr); };
    for (const Operation& operation : operations) {
        const Work withoutQueries = [&] {
            const AnsweredQueries answered;
            operation.work();
        };
        const Timings own = measure({9, 3, 3}, {withoutQueries, copyList});
        const Timings whole = measure({3, 2, 3}, {operation.work});
        rows.push_back({{"section", "keys"},
                        {"id", std::string("keys.") + operation.id + "." + std::to_string(count)},
                        {"operation", operation.id},
                        {"name", operation.name},
                        {"library", "a library that only lists keys"},
                        {"keys", count},
                        {"levelQueries", queriesOf(operation.work)},
                        {"provider", toJson(whole.of(0))},
                        {"providerWithoutQueries", toJson(own.of(0))},
                        {"listCopy", toJson(own.of(1))},
                        {"listCopies", toJson(own.speed(1, 0))}});
    }
    provider.ksp->FreeProvider(kspProvider);
}

}  // namespace

void measureKeyCounts(const Provider& provider, Json& rows) {
    const auto setListedKeys = reinterpret_cast<SetListedKeys>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("TalvikDSCLibrary.dll"), setListedKeysName)));
    require(setListedKeys != nullptr, "finding the listing device library");
    for (const unsigned int count : keyCounts) {
        setListedKeys(count);
        measureKeyCount(provider, count, rows);
    }
    setListedKeys(1);
}

}  // namespace talvik::bench
