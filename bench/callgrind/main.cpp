// Makes each frequent call of both faces, under callgrind: a few times unwatched, until everything is as it stays, then
// CALLS times between two marks. The dump between them bears the call's name.
#include <windows.h>

#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <valgrind/callgrind.h>

#include "callgrind/idle_library.h"
#include "csp/entry_points.h"
#include "ksp/entry_points.h"
#include "log/level.h"
#include "token/device_monitor.h"

namespace {

constexpr int CALLS = 10;

void require(bool succeeded, const std::string& name) {
    if (!succeeded) {
        std::fprintf(stderr, "%s failed\n", name.c_str());
        std::exit(1);
    }
}

template <class Call>
void count(const std::string& name, Call call) {
    const talvik::ApplicationCall loop;  // one of many calls: the level is known
    for (int i = 0; i < 3; ++i) {
        require(call(), name);
    }
    bool succeeded = true;
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < CALLS; ++i) {
        succeeded &= call();
    }
    CALLGRIND_DUMP_STATS_AT(name.c_str());
    require(succeeded, name);
}

HCRYPTPROV acquired(DWORD flags) {
    static int table;
    HCRYPTPROV context = 0;
    require(CPAcquireContext(&context, nullptr, flags, reinterpret_cast<VTableProvStruc*>(&table)), "acquisition");
    return context;
}

HCRYPTKEY sessionKey(HCRYPTPROV context, HCRYPTKEY exchangeKey) {
    const unsigned char blob[12 + 256] = {SIMPLEBLOB, 2, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4};
    HCRYPTKEY key = 0;
    require(CPImportKey(context, blob, sizeof blob, exchangeKey, 0, &key), "session key");
    return key;
}

void countCryptoApi() {
    for (const DWORD flags : {DWORD{CRYPT_VERIFYCONTEXT}, DWORD{0}}) {
        count(flags != 0 ? "CPAcquireContext+CPReleaseContext/verify-only" : "CPAcquireContext+CPReleaseContext/token",
              [=] { return CPReleaseContext(acquired(flags), 0); });
    }
    const HCRYPTPROV context = acquired(0);
    unsigned char data[1024] = {};
    DWORD size = 0;
    count("CPGenRandom", [&] { return CPGenRandom(context, 32, data); });

    HCRYPTHASH hash = 0;
    const auto create = [&] { return CPCreateHash(context, CALG_SHA_256, 0, 0, &hash); };
    count("CPCreateHash+CPDestroyHash", [&] { return create() && CPDestroyHash(context, hash); });
    create();
    count("CPHashData/1024", [&] { return CPHashData(context, hash, data, 1024, 0); });
    count("CPHashData/64M", [&] { return CPHashData(context, hash, data, 64 << 20, 0); });
    count("CPGetHashParam/size",
          [&] { return CPGetHashParam(context, hash, HP_HASHSIZE, data, &(size = sizeof size), 0); });
    count("CPGetHashParam/value", [&] { return CPGetHashParam(context, hash, HP_HASHVAL, data, &(size = 32), 0); });
    count("CPSignHash", [&] { return CPSignHash(context, hash, AT_SIGNATURE, nullptr, 0, data, &(size = 256)); });

    HCRYPTKEY key = 0;
    const auto open = [&] { return CPGetUserKey(context, AT_KEYEXCHANGE, &key); };
    count("CPGetUserKey+CPDestroyKey", [&] { return open() && CPDestroyKey(context, key); });
    open();
    count("CPVerifySignature", [&] { return CPVerifySignature(context, hash, data, 256, key, nullptr, 0); });
    count("CPGetKeyParam/length", [&] { return CPGetKeyParam(context, key, KP_KEYLEN, data, &(size = 4), 0); });
    count("CPExportKey/public", [&] { return CPExportKey(context, key, 0, PUBLICKEYBLOB, 0, data, &(size = 512)); });
    count("CPEncrypt/RSA", [&] { return CPEncrypt(context, key, 0, TRUE, 0, data, &(size = 32), 512); });
    count("CPDecrypt/RSA", [&] { return CPDecrypt(context, key, 0, TRUE, 0, data, &(size = 256)); });
    const HCRYPTKEY aes = sessionKey(context, key);
    count("CPEncrypt/AES/1024", [&] { return CPEncrypt(context, aes, 0, TRUE, 0, data, &(size = 1024), 1024); });
    count("CPDecrypt/AES/1024", [&] { return CPDecrypt(context, aes, 0, TRUE, 0, data, &(size = 1024)); });
    CPDestroyKey(context, aes);
    CPDestroyKey(context, key);
    CPDestroyHash(context, hash);
    CPReleaseContext(context, 0);
}

void countKeyStorage() {
    NCRYPT_PROV_HANDLE provider = 0;
    const auto openProvider = [&] { return KSPOpenProvider(&provider, L"", 0) == ERROR_SUCCESS; };
    count("KSPOpenProvider+KSPFreeProvider",
          [&] { return openProvider() && KSPFreeProvider(provider) == ERROR_SUCCESS; });
    openProvider();
    NCRYPT_KEY_HANDLE key = 0;
    const auto openKey = [&] {
        return KSPOpenKey(provider, &key, L"11111111111111111111111111111111", 0, 0) == ERROR_SUCCESS;
    };
    count("KSPOpenKey+KSPFreeKey", [&] { return openKey() && KSPFreeKey(provider, key) == ERROR_SUCCESS; });
    openKey();
    unsigned char data[1024] = {};
    DWORD size = 0;
    const auto getProperty = [&](const wchar_t* name) {
        return KSPGetKeyProperty(provider, key, name, data, sizeof data, &size, 0) == ERROR_SUCCESS;
    };
    count("KSPGetKeyProperty/length", [&] { return getProperty(NCRYPT_LENGTH_PROPERTY); });
    count("KSPGetKeyProperty/name", [&] { return getProperty(NCRYPT_NAME_PROPERTY); });
    count("KSPSignHash",
          [&] { return KSPSignHash(provider, key, nullptr, data, 32, data, 512, &size, 0) == ERROR_SUCCESS; });
    count("KSPVerifySignature",
          [&] { return KSPVerifySignature(provider, key, nullptr, data, 32, data, 256, 0) == ERROR_SUCCESS; });
    count("KSPEncrypt/RSA",
          [&] { return KSPEncrypt(provider, key, data, 32, nullptr, data, 512, &size, 0) == ERROR_SUCCESS; });
    count("KSPDecrypt/RSA",
          [&] { return KSPDecrypt(provider, key, data, 256, nullptr, data, 512, &size, 0) == ERROR_SUCCESS; });
    count("KSPExportKey/public", [&] {
        return KSPExportKey(provider, key, 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, data, sizeof data, &size, 0) ==
               ERROR_SUCCESS;
    });
    KSPFreeKey(provider, key);
    KSPFreeProvider(provider);
}

}  // namespace

int main() {
    const DWORD silent = 0;
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Quorvel\\Talvik", "logLevel", REG_DWORD, &silent, sizeof silent);
    countCryptoApi();
    countKeyStorage();
    idle_library::letMonitorGo();
    talvik::stopDeviceMonitor();
}
