#include <algorithm>
#include <array>
#include <cstring>

#include "fuzz/provider_fuzz.h"
#include "token/device_monitor.h"

namespace {

// A few places for handles of one kind; what is in a place at the end of a run is released.
template <class Release>
class Handles {
  public:
    explicit Handles(Release release) : release_(release) {}
    ~Handles() {
        for (const ULONG_PTR handle : places_) {
            let(handle);
        }
    }
    Handles(const Handles&) = delete;
    Handles& operator=(const Handles&) = delete;

    ULONG_PTR any(Input& input) const { return places_[input.below(places_.size())]; }

    void put(Input& input, ULONG_PTR handle) {
        ULONG_PTR& place = places_[input.below(places_.size())];
        let(place);
        place = handle;
    }

  private:
    void let(ULONG_PTR handle) const {
        if (handle != 0) {
            release_(handle);
        }
    }

    Release release_;
    std::array<ULONG_PTR, 3> places_{};
};

struct Application {
    Input& input;
    const HCRYPTPROV anyContext = tokenContext();

    Handles<BOOL (*)(ULONG_PTR)> contexts{[](ULONG_PTR handle) { return CPReleaseContext(handle, 0); }};
    Handles<BOOL (*)(ULONG_PTR)> hashes{[](ULONG_PTR handle) {
        checkHash(handle);
        return CPDestroyHash(tokenContext(), handle);
    }};
    Handles<BOOL (*)(ULONG_PTR)> keys{[](ULONG_PTR handle) {
        checkCspKey(handle);
        return CPDestroyKey(tokenContext(), handle);
    }};
    Handles<SECURITY_STATUS (*)(ULONG_PTR)> providers{[](ULONG_PTR handle) { return KSPFreeProvider(handle); }};
    Handles<SECURITY_STATUS (*)(ULONG_PTR)> cngKeys{[](ULONG_PTR handle) {
        checkCngKey(handle);
        return KSPFreeKey(0, handle);
    }};

    HCRYPTPROV context() { return contexts.any(input); }
    HCRYPTHASH hash() { return hashes.any(input); }
    HCRYPTKEY key() { return keys.any(input); }
    NCRYPT_PROV_HANDLE provider() { return providers.any(input); }
    NCRYPT_KEY_HANDLE cngKey() { return cngKeys.any(input); }
    Guarded block() { return Guarded(input.take<std::uint16_t>() % 4097); }
    Guarded bytes() { return Guarded(input.takeBytes(input.below(80))); }
    Guarded sixtyFour() {
        Guarded block(64);
        std::ranges::copy(input.takeBytes(block.size()), block.data());
        return block;
    }
    // Null now and then: a size query.
    unsigned char* orNull(const Guarded& block) { return input.below(8) == 7 ? nullptr : block.data(); }
    std::span<const std::uint8_t> bytes(std::size_t bound) { return input.takeBytes(input.below(bound)); }
};

void acquire(Application& app) {
    constexpr const char* names[] = {nullptr, "", "00000000000000000000000000000000", "mine"};
    constexpr DWORD flags[] = {0, CRYPT_VERIFYCONTEXT, CRYPT_NEWKEYSET, CRYPT_SILENT, CRYPT_DELETEKEYSET};
    const char* const name = app.input.oneOf(names);
    app.contexts.put(app.input, newContext(name, app.input.oneOf(flags)));
}

void openProvider(Application& app) {
    NCRYPT_PROV_HANDLE made = 0;
    KSPOpenProvider(&made, L"", 0);
    app.providers.put(app.input, made);
}

// Texts that are given without a length end with a NUL.
Guarded valueFor(const Guarded& name, Input& input) {
    const std::wstring_view text = name.as<wchar_t>();
    const auto value = input.takeBytes(input.below(80));
    if (text == NCRYPT_PIN_PROPERTY) {
        return Guarded::text(value, 1);
    }
    return text == L"ChainingMode" ? Guarded::text(value, sizeof(wchar_t)) : Guarded(value);
}

constexpr void (*calls[])(Application&) = {
    acquire,
    [](Application& app) {
        constexpr ALG_ID algorithms[] = {CALG_SHA_256, CALG_SHA1, CALG_SHA_384, CALG_SHA_512, CALG_MD5};
        HCRYPTHASH made = 0;
        CPCreateHash(app.context(), app.input.oneOf(algorithms), 0, 0, &made);
        app.hashes.put(app.input, made);
    },
    [](Application& app) {
        HCRYPTHASH made = 0;
        CPDuplicateHash(app.context(), app.hash(), nullptr, 0, &made);
        app.hashes.put(app.input, made);
    },
    [](Application& app) {
        const Guarded data = app.bytes();
        CPHashData(app.context(), app.hash(), data.data(), data.size(), 0);
    },
    [](Application& app) {
        const Guarded value = app.block();
        DWORD size = value.size();
        constexpr DWORD params[] = {HP_HASHVAL, HP_HASHSIZE, HP_ALGID, HP_HMAC_INFO, 99};
        CPGetHashParam(app.context(), app.hash(), app.input.oneOf(params), app.orNull(value), &size, 0);
    },
    [](Application& app) {
        constexpr DWORD params[] = {HP_HASHVAL, HP_HMAC_INFO, 99};
        CPSetHashParam(app.context(), app.hash(), app.input.oneOf(params), Guarded(64).data(), 0);
    },
    [](Application& app) {
        const Guarded signature = app.block();
        DWORD size = app.input.below(16) == 15 ? 0xFFFFFFFF : signature.size();
        unsigned char* const buffer = size > 4097 ? nullptr : app.orNull(signature);
        CPSignHash(app.context(), app.hash(), AT_SIGNATURE, nullptr, 0, buffer, &size);
    },
    [](Application& app) {
        const Guarded signature = app.block();
        CPVerifySignature(app.context(), app.hash(), signature.data(), signature.size(), app.key(), nullptr, 0);
    },
    [](Application& app) {
        constexpr ALG_ID algorithms[] = {CALG_RSA_SIGN, CALG_RSA_KEYX, AT_SIGNATURE, AT_KEYEXCHANGE, CALG_AES_256};
        HCRYPTKEY made = 0;
        CPGenKey(app.context(), app.input.oneOf(algorithms), app.input.take<DWORD>(), &made);
        app.keys.put(app.input, made);
    },
    [](Application& app) {
        HCRYPTKEY made = 0;
        CPGetUserKey(app.context(), static_cast<DWORD>(app.input.below(4)), &made);
        app.keys.put(app.input, made);
    },
    [](Application& app) {
        const Guarded blob = app.bytes();
        HCRYPTKEY made = 0;
        CPImportKey(app.context(), blob.data(), blob.size(), app.key(), 0, &made);
        app.keys.put(app.input, made);
    },
    [](Application& app) {
        const Guarded blob = app.block();
        DWORD size = blob.size();
        CPExportKey(app.context(), app.key(), 0, static_cast<DWORD>(app.input.below(10)), 0, app.orNull(blob), &size);
    },
    [](Application& app) {
        const Guarded data = app.block();
        DWORD length = std::min(data.size(), static_cast<std::uint32_t>(app.input.below(256)));
        if (app.input.below(2) == 0) {
            CPEncrypt(app.context(), app.key(), 0, TRUE, app.input.take<DWORD>(), app.orNull(data), &length,
                      data.size());
        } else {
            const Guarded ciphertext(length);
            CPDecrypt(app.context(), app.key(), 0, TRUE, 0, app.orNull(ciphertext), &length);
        }
    },
    [](Application& app) {
        const Guarded value = app.block();
        DWORD size = value.size();
        CPGetKeyParam(app.context(), app.key(), app.input.take<std::uint8_t>(), app.orNull(value), &size, 0);
    },
    [](Application& app) { CPSetKeyParam(app.context(), app.key(), KP_IV, Guarded(16).data(), 0); },
    [](Application& app) {
        const Guarded value = app.block();
        DWORD size = value.size();
        const DWORD param = app.input.take<std::uint8_t>();
        CPGetProvParam(app.context(), param, app.orNull(value), &size, static_cast<DWORD>(app.input.below(4)));
    },
    [](Application& app) { CPSetProvParam(app.context(), PP_SIGNATURE_PIN, Guarded::text(app.bytes(2), 1).data(), 0); },
    [](Application& app) {
        const Guarded data = app.block();
        CPGenRandom(app.context(), data.size(), data.data());
    },
    openProvider,
    [](Application& app) {
        constexpr const wchar_t* names[] = {L"00000000000000000000000000000000", L"11111111111111111111111111111111",
                                            L"LLLLLLLL", L"", nullptr};
        NCRYPT_KEY_HANDLE made = 0;
        KSPOpenKey(app.provider(), &made, app.input.oneOf(names), 0, 0);
        app.cngKeys.put(app.input, made);
    },
    [](Application& app) {
        const Guarded algorithm = algorithmName(app.input);
        NCRYPT_KEY_HANDLE made = 0;
        KSPCreatePersistedKey(app.provider(), &made, algorithm.as<wchar_t>(), L"mine",
                              static_cast<DWORD>(app.input.below(3)), 0);
        app.cngKeys.put(app.input, made);
    },
    [](Application& app) { KSPFinalizeKey(app.provider(), app.cngKey(), 0); },
    [](Application& app) { KSPDeleteKey(app.provider(), app.cngKey(), 0); },
    [](Application& app) {
        const Guarded type = blobTypeName(app.input);
        const Guarded blob = app.bytes();
        NCRYPT_KEY_HANDLE made = 0;
        KSPImportKey(app.provider(), app.cngKey(), type.as<wchar_t>(), nullptr, &made, blob.data(), blob.size(), 0);
        app.cngKeys.put(app.input, made);
    },
    [](Application& app) {
        const Guarded type = blobTypeName(app.input);
        const Guarded blob = app.block();
        DWORD size = 0;
        KSPExportKey(app.provider(), app.cngKey(), 0, type.as<wchar_t>(), nullptr, app.orNull(blob), blob.size(), &size,
                     0);
    },
    [](Application& app) {
        const Guarded name = propertyName(app.input);
        const Guarded value = app.block();
        DWORD size = 0;
        KSPGetKeyProperty(app.provider(), app.cngKey(), name.as<wchar_t>(), app.orNull(value), value.size(), &size, 0);
    },
    [](Application& app) {
        const Guarded name = propertyName(app.input);
        const Guarded value = Guarded::text(app.bytes(40), sizeof(wchar_t));
        KSPSetKeyProperty(app.provider(), app.cngKey(), name.as<wchar_t>(), value.data(), value.size(), 0);
    },
    [](Application& app) {
        const Guarded in = app.bytes();
        const Guarded out = app.block();
        DWORD size = 0;
        const auto operation = app.input.below(2) == 0 ? KSPEncrypt : KSPDecrypt;
        operation(app.provider(), app.cngKey(), in.data(), in.size(), nullptr, app.orNull(out), out.size(), &size,
                  app.input.take<DWORD>());
    },
    [](Application& app) {
        const Guarded digest = app.bytes();
        const Guarded signature = app.block();
        DWORD size = 0;
        KSPSignHash(app.provider(), app.cngKey(), nullptr, digest.data(), digest.size(), app.orNull(signature),
                    signature.size(), &size, app.input.take<DWORD>());
    },
    [](Application& app) {
        const Guarded digest = app.bytes();
        const Guarded signature = app.block();
        KSPVerifySignature(app.provider(), app.cngKey(), nullptr, digest.data(), digest.size(), signature.data(),
                           signature.size(), app.input.take<DWORD>());
    },
    [](Application& app) {
        PVOID state = nullptr;
        NCryptKeyName* name = nullptr;
        const NCRYPT_PROV_HANDLE opened = app.provider();
        while (KSPEnumKeys(opened, nullptr, &name, &state, 0) == ERROR_SUCCESS) {
            KSPFreeBuffer(name);
        }
        KSPFreeBuffer(state);
    },
    [](Application& app) {
        DWORD count = 0;
        NCryptAlgorithmName* list = nullptr;
        if (KSPEnumAlgorithms(app.provider(), app.input.take<std::uint8_t>(), &count, &list, 0) == ERROR_SUCCESS) {
            KSPFreeBuffer(list);
        }
    },
    [](Application& app) { KSPPromptUser(app.provider(), app.cngKey(), nullptr, 0); },
    [](Application& app) { app.contexts.put(app.input, 0); }, [](Application& app) { app.providers.put(app.input, 0); },
    // Keys held in clear, for the ciphers: of the length that the library's script gives, of a real one.
    [](Application& app) {
        constexpr unsigned char blob[] = {SIMPLEBLOB, 2, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0, 1, 2, 3};
        const CspKey unwrapping;
        HCRYPTKEY made = 0;
        CPImportKey(tokenContext(), blob, sizeof blob, unwrapping.handle, 0, &made);
        app.keys.put(app.input, made);
    },
    [](Application& app) {
        constexpr std::uint32_t sizes[] = {16, 24, 32};
        const std::uint32_t size = app.input.oneOf(sizes);
        const BCRYPT_KEY_DATA_BLOB_HEADER header = {BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, size};
        const Guarded blob(sizeof header + size);
        std::memcpy(blob.data(), &header, sizeof header);
        NCRYPT_KEY_HANDLE made = 0;
        KSPImportKey(app.provider(), 0, BCRYPT_KEY_DATA_BLOB, nullptr, &made, blob.data(), blob.size(), 0);
        app.cngKeys.put(app.input, made);
    },
    // What has a length is as long as the caller says, what has none has room for the longest fixed one.
    [](Application& app) {
        const Guarded name = propertyName(app.input);
        const Guarded value = valueFor(name, app.input);
        app.input.below(2) == 0
            ? KSPSetKeyProperty(app.provider(), app.cngKey(), name.as<wchar_t>(), value.data(), value.size(), 0)
            : KSPSetProviderProperty(app.provider(), name.as<wchar_t>(), value.data(), value.size(), 0);
    },
    [](Application& app) {
        const Guarded name = propertyName(app.input);
        const Guarded value = app.block();
        DWORD size = 0;
        KSPGetProviderProperty(app.provider(), name.as<wchar_t>(), app.orNull(value), value.size(), &size, 0);
    },
    [](Application& app) {
        const DWORD param = app.input.take<std::uint8_t>();
        const Guarded given = app.sixtyFour();
        if (param != KP_CERTIFICATE) {  // has its own target
            CPSetKeyParam(app.context(), app.key(), param, given.data(), app.input.take<DWORD>());
        }
    },
    [](Application& app) {
        const DWORD param = app.input.take<std::uint8_t>();
        const Guarded given = app.sixtyFour();
        if (param != PP_KEYEXCHANGE_PIN && param != PP_SIGNATURE_PIN) {  // texts
            CPSetProvParam(app.context(), param, given.data(), app.input.take<DWORD>());
        }
    },
    [](Application& app) {
        const DWORD param = app.input.take<std::uint8_t>();
        CPSetHashParam(app.context(), app.hash(), param, app.sixtyFour().data(), app.input.below(2));
    }};

}  // namespace

void callInAnyOrder(Input& input, const std::function<void()>& opened) {
    Application application{input};
    acquire(application);
    openProvider(application);
    opened();
    while (!input.isAtEnd()) {
        input.oneOf(calls)(application);
    }
}
