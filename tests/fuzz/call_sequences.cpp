// Sequences of calls on both faces, in any order an application could make them: handles live from call to call, are
// used with other handles, released early or never. Handles are addresses, so only live ones and null are ever passed.
#include <array>

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
    Guarded block() { return Guarded(input.take<std::uint16_t>() % 1100); }
    Guarded bytes() { return Guarded(input.takeBytes(input.below(80))); }
    // Null now and then: a size query.
    unsigned char* orNull(const Guarded& block) { return input.below(8) == 7 ? nullptr : block.data(); }

    void acquire() {
        constexpr const char* names[] = {nullptr, "", "00000000000000000000000000000000", "mine"};
        constexpr DWORD flags[] = {0, CRYPT_VERIFYCONTEXT, CRYPT_NEWKEYSET, CRYPT_SILENT, CRYPT_DELETEKEYSET};
        const char* const name = input.oneOf(names);
        contexts.put(input, newContext(name, input.oneOf(flags)));
    }
    void createHash() {
        constexpr ALG_ID algorithms[] = {CALG_SHA_256, CALG_SHA1, CALG_SHA_384, CALG_SHA_512, CALG_MD5};
        HCRYPTHASH made = 0;
        CPCreateHash(context(), input.oneOf(algorithms), 0, 0, &made);
        hashes.put(input, made);
    }
    void duplicateHash() {
        HCRYPTHASH made = 0;
        CPDuplicateHash(context(), hash(), nullptr, 0, &made);
        hashes.put(input, made);
    }
    void hashData() {
        const Guarded data = bytes();
        CPHashData(context(), hash(), data.data(), data.size(), 0);
    }
    void hashParam() {
        const Guarded value = block();
        DWORD size = value.size();
        constexpr DWORD params[] = {HP_HASHVAL, HP_HASHSIZE, HP_ALGID, HP_HMAC_INFO, 99};
        CPGetHashParam(context(), hash(), input.oneOf(params), orNull(value), &size, 0);
    }
    void setHashParam() {
        constexpr DWORD params[] = {HP_HASHVAL, HP_HMAC_INFO, 99};
        CPSetHashParam(context(), hash(), input.oneOf(params), Guarded(64).data(), 0);
    }
    void sign() {
        const Guarded signature = block();
        DWORD size = input.below(16) == 15 ? 0xFFFFFFFF : signature.size();
        unsigned char* const buffer = size > 1100 ? nullptr : orNull(signature);
        CPSignHash(context(), hash(), AT_SIGNATURE, nullptr, 0, buffer, &size);
    }
    void verify() {
        const Guarded signature = block();
        CPVerifySignature(context(), hash(), signature.data(), signature.size(), key(), nullptr, 0);
    }
    void generate() {
        constexpr ALG_ID algorithms[] = {CALG_RSA_SIGN, CALG_RSA_KEYX, AT_SIGNATURE, AT_KEYEXCHANGE, CALG_AES_256};
        HCRYPTKEY made = 0;
        CPGenKey(context(), input.oneOf(algorithms), input.take<DWORD>(), &made);
        keys.put(input, made);
    }
    void userKey() {
        HCRYPTKEY made = 0;
        CPGetUserKey(context(), static_cast<DWORD>(input.below(4)), &made);
        keys.put(input, made);
    }
    void importKey() {
        const Guarded blob = bytes();
        HCRYPTKEY made = 0;
        CPImportKey(context(), blob.data(), blob.size(), key(), 0, &made);
        keys.put(input, made);
    }
    void exportKey() {
        const Guarded blob = block();
        DWORD size = blob.size();
        CPExportKey(context(), key(), 0, static_cast<DWORD>(input.below(10)), 0, orNull(blob), &size);
    }
    void cipher() {
        const Guarded data = block();
        DWORD length = std::min(data.size(), static_cast<std::uint32_t>(input.below(256)));
        if (input.below(2) == 0) {
            CPEncrypt(context(), key(), 0, TRUE, input.take<DWORD>(), orNull(data), &length, data.size());
        } else {
            const Guarded ciphertext(length);
            CPDecrypt(context(), key(), 0, TRUE, 0, orNull(ciphertext), &length);
        }
    }
    void keyParam() {
        const Guarded value = block();
        DWORD size = value.size();
        CPGetKeyParam(context(), key(), input.take<std::uint8_t>(), orNull(value), &size, 0);
    }
    void setIv() { CPSetKeyParam(context(), key(), KP_IV, Guarded(16).data(), 0); }
    void providerParam() {
        const Guarded value = block();
        DWORD size = value.size();
        const DWORD param = input.take<std::uint8_t>();
        CPGetProvParam(context(), param, orNull(value), &size, static_cast<DWORD>(input.below(4)));
    }
    void setProviderPin() { CPSetProvParam(context(), PP_SIGNATURE_PIN, Guarded::text(bytes(2), 1).data(), 0); }
    void random() {
        const Guarded data = block();
        CPGenRandom(context(), data.size(), data.data());
    }

    void openProvider() {
        NCRYPT_PROV_HANDLE made = 0;
        KSPOpenProvider(&made, L"", 0);
        providers.put(input, made);
    }
    void openCngKey() {
        constexpr const wchar_t* names[] = {L"00000000000000000000000000000000", L"11111111111111111111111111111111",
                                            L"LLLLLLLL", L"", nullptr};
        NCRYPT_KEY_HANDLE made = 0;
        KSPOpenKey(provider(), &made, input.oneOf(names), 0, 0);
        cngKeys.put(input, made);
    }
    void createCngKey() {
        const Guarded algorithm = algorithmName(input);
        NCRYPT_KEY_HANDLE made = 0;
        KSPCreatePersistedKey(provider(), &made, algorithm.as<wchar_t>(), L"mine", static_cast<DWORD>(input.below(3)),
                              0);
        cngKeys.put(input, made);
    }
    void finalizeCngKey() { KSPFinalizeKey(provider(), cngKey(), 0); }
    void deleteCngKey() { KSPDeleteKey(provider(), cngKey(), 0); }
    void importCngKey() {
        const Guarded type = blobTypeName(input);
        const Guarded blob = bytes();
        NCRYPT_KEY_HANDLE made = 0;
        KSPImportKey(provider(), cngKey(), type.as<wchar_t>(), nullptr, &made, blob.data(), blob.size(), 0);
        cngKeys.put(input, made);
    }
    void exportCngKey() {
        const Guarded type = blobTypeName(input);
        const Guarded blob = block();
        DWORD size = 0;
        KSPExportKey(provider(), cngKey(), 0, type.as<wchar_t>(), nullptr, orNull(blob), blob.size(), &size, 0);
    }
    void cngProperty() {
        const Guarded name = propertyName(input);
        const Guarded value = block();
        DWORD size = 0;
        KSPGetKeyProperty(provider(), cngKey(), name.as<wchar_t>(), orNull(value), value.size(), &size, 0);
    }
    void setCngProperty() {
        const Guarded name = propertyName(input);
        const Guarded value = Guarded::text(bytes(40), sizeof(wchar_t));
        KSPSetKeyProperty(provider(), cngKey(), name.as<wchar_t>(), value.data(), value.size(), 0);
    }
    void cngCipher() {
        const Guarded in = bytes();
        const Guarded out = block();
        DWORD size = 0;
        const auto operation = input.below(2) == 0 ? KSPEncrypt : KSPDecrypt;
        operation(provider(), cngKey(), in.data(), in.size(), nullptr, orNull(out), out.size(), &size,
                  input.take<DWORD>());
    }
    void cngSign() {
        const Guarded digest = bytes();
        const Guarded signature = block();
        DWORD size = 0;
        KSPSignHash(provider(), cngKey(), nullptr, digest.data(), digest.size(), orNull(signature), signature.size(),
                    &size, input.take<DWORD>());
    }
    void cngVerify() {
        const Guarded digest = bytes();
        const Guarded signature = block();
        KSPVerifySignature(provider(), cngKey(), nullptr, digest.data(), digest.size(), signature.data(),
                           signature.size(), input.take<DWORD>());
    }
    void enumerateCngKeys() {
        PVOID state = nullptr;
        NCryptKeyName* name = nullptr;
        const NCRYPT_PROV_HANDLE opened = provider();
        while (KSPEnumKeys(opened, nullptr, &name, &state, 0) == ERROR_SUCCESS) {
            KSPFreeBuffer(name);
        }
        KSPFreeBuffer(state);
    }
    void enumerateAlgorithms() {
        DWORD count = 0;
        NCryptAlgorithmName* list = nullptr;
        if (KSPEnumAlgorithms(provider(), input.take<std::uint8_t>(), &count, &list, 0) == ERROR_SUCCESS) {
            KSPFreeBuffer(list);
        }
    }
    void prompt() { KSPPromptUser(provider(), cngKey(), nullptr, 0); }
    void forget() { contexts.put(input, 0); }
    void forgetProvider() { providers.put(input, 0); }

  private:
    std::span<const std::uint8_t> bytes(std::size_t bound) { return input.takeBytes(input.below(bound)); }
};

constexpr void (Application::*calls[])() = {
    &Application::acquire,
    &Application::createHash,
    &Application::duplicateHash,
    &Application::hashData,
    &Application::hashParam,
    &Application::setHashParam,
    &Application::sign,
    &Application::verify,
    &Application::generate,
    &Application::userKey,
    &Application::importKey,
    &Application::exportKey,
    &Application::cipher,
    &Application::keyParam,
    &Application::setIv,
    &Application::providerParam,
    &Application::setProviderPin,
    &Application::random,
    &Application::openProvider,
    &Application::openCngKey,
    &Application::createCngKey,
    &Application::finalizeCngKey,
    &Application::deleteCngKey,
    &Application::importCngKey,
    &Application::exportCngKey,
    &Application::cngProperty,
    &Application::setCngProperty,
    &Application::cngCipher,
    &Application::cngSign,
    &Application::cngVerify,
    &Application::enumerateCngKeys,
    &Application::enumerateAlgorithms,
    &Application::prompt,
    &Application::forget,
    &Application::forgetProvider,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run(data, size);
    Application application{run.input};
    application.acquire();
    application.openProvider();
    run.lieFromHere();
    while (!run.input.isAtEnd()) {
        (application.*run.input.oneOf(calls))();
    }
    return 0;
}
