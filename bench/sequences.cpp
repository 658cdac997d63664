#include "sequences.h"

#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

#include "level_query.h"
#include "sections.h"

namespace talvik::bench {
namespace {

constexpr int digestSize = 32;
constexpr std::size_t mebibyte = 1u << 20;
constexpr std::size_t aesBlock = 16;
using Digest = std::array<unsigned char, 64>;
using RsaBuffer = std::array<unsigned char, 1024>;

DWORD size32(std::size_t size) {
    return static_cast<DWORD>(size);
}

// The hash object of an application, with `data` in it.
class CspHash {
  public:
    CspHash(const Provider& provider, HCRYPTPROV context, const Bytes& data) : CspHash(provider, context) { add(data); }
    CspHash(const Provider& provider, HCRYPTPROV context) : provider_(provider), context_(context) {
        require(provider.createHash(context, CALG_SHA_256, 0, 0, &handle_), "CPCreateHash");
    }
    ~CspHash() { provider_.destroyHash(context_, handle_); }
    CspHash(const CspHash&) = delete;
    CspHash& operator=(const CspHash&) = delete;

    void add(const Bytes& data) {
        require(provider_.hashData(context_, handle_, data.data(), size32(data.size()), 0), "CPHashData");
    }
    operator HCRYPTHASH() const noexcept { return handle_; }

  private:
    const Provider& provider_;
    HCRYPTPROV context_;
    HCRYPTHASH handle_ = 0;
};

Digest digestDirectly(const std::string& deviceId, const Bytes& piece, std::size_t pieces) {
    void* hash = nullptr;
    Digest digest = {};
    int length = digestSize;
    requireStatus(talvik_initHash(deviceId.c_str(), TALVIK_HASH_SHA256, &hash, nullptr), "talvik_initHash");
    for (std::size_t i = 0; i < pieces; ++i) {
        requireStatus(talvik_updateHash(hash, piece.data(), static_cast<int>(piece.size()), nullptr),
                      "talvik_updateHash");
    }
    requireStatus(talvik_finalHash(hash, digest.data(), &length, nullptr), "talvik_finalHash");
    return digest;
}

// The CNG face has no hash objects: an application hashes with the system's BCrypt and hands over the digest.
Digest digestByBCrypt(const Bytes& data) {
    static const BCRYPT_ALG_HANDLE algorithm = [] {
        BCRYPT_ALG_HANDLE opened = nullptr;
        requireStatus(BCryptOpenAlgorithmProvider(&opened, BCRYPT_SHA256_ALGORITHM, nullptr, 0), "BCrypt");
        return opened;
    }();
    Digest digest = {};
    BCRYPT_HASH_HANDLE hash = nullptr;
    requireStatus(BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0), "BCryptCreateHash");
    requireStatus(BCryptHashData(hash, const_cast<BYTE*>(data.data()), size32(data.size()), 0), "BCryptHashData");
    requireStatus(BCryptFinishHash(hash, digest.data(), digestSize, 0), "BCryptFinishHash");
    BCryptDestroyHash(hash);
    return digest;
}

void signDigestDirectly(const BenchToken& token, const Digest& digest, unsigned char* signature) {
    int length = sizeof(RsaBuffer);
    requireStatus(talvik_signHash(token.deviceId.c_str(), token.key.keyId, token.pin.c_str(), digest.data(), digestSize,
                                  signature, &length, false, nullptr, false),
                  "talvik_signHash");
}

// --- the sequences ---------------------------------------------------------------------------------------------------

struct Sequence {
    const char* id;
    const char* name;
    Work provider;
    Work direct;
};

void compareWithDirect(const Sequence& sequence, Json& rows) {
    const Work withoutQueries = [&] {
        const AnsweredQueries answered;
        sequence.provider();
    };
    const Timings timings = measure({}, {sequence.provider, withoutQueries, sequence.direct});
    rows.push_back({{"section", "sequences"},
                    {"id", sequence.id},
                    {"name", sequence.name},
                    {"library", "virtual token"},
                    {"levelQueries", queriesOf(sequence.provider)},
                    {"provider", toJson(timings.of(0))},
                    {"providerWithoutQueries", toJson(timings.of(1))},
                    {"direct", toJson(timings.of(2))},
                    {"kept", toJson(timings.speed(0, 2))},
                    {"keptWithoutQueries", toJson(timings.speed(1, 2))},
                    {"keptUndisturbed", timings.undisturbedSpeed(0, 2)},
                    {"keptUndisturbedWithoutQueries", timings.undisturbedSpeed(1, 2)}});
}

std::vector<Sequence> hashSequences(const BenchToken& token) {
    struct Chunks {
        const char* id;
        const char* name;
        std::size_t piece;
        std::size_t total;
    };
    constexpr Chunks chunks[] = {{"csp.hash.1m", "CSP hash, chunks of 1 MiB", mebibyte, 16 * mebibyte},
                                 {"csp.hash.64k", "CSP hash, chunks of 64 KiB", 64u << 10, mebibyte},
                                 {"csp.hash.4k", "CSP hash, chunks of 4 KiB", 4u << 10, mebibyte},
                                 {"csp.hash.512", "CSP hash, chunks of 512 B", 512, mebibyte / 4}};
    std::vector<Sequence> sequences;
    for (const Chunks& row : chunks) {
        const Bytes piece(row.piece, 0xA5);
        sequences.push_back({row.id, row.name,
                             [=, &token] { hashThroughCsp(token.provider, token.context, piece, row.total); },
                             [=, &token] { hashDirectly(token.deviceId, piece, row.total); }});
    }
    return sequences;
}

std::vector<Sequence> signatureSequences(const BenchToken& token) {
    const Provider& provider = token.provider;
    static const Bytes data(1024, 0x5A);
    static const Digest digest = digestByBCrypt(data);
    static RsaBuffer signature = {};
    static RsaBuffer littleEndian = {};
    signDigestDirectly(token, digest, signature.data());
    std::reverse_copy(signature.begin(), signature.begin() + 256, littleEndian.begin());
    static HCRYPTKEY publicKey = 0;
    require(provider.getUserKey(token.context, AT_SIGNATURE, &publicKey), "CPGetUserKey");

    const auto verifyDirectly = [&token](const Digest& signedDigest) {
        requireStatus(
            talvik_verifySignatureHash(TALVIK_KEY_RSA_2048, token.deviceId.c_str(), signedDigest.data(), digestSize,
                                       token.publicKey.data(), static_cast<int>(token.publicKey.size()),
                                       signature.data(), 256, nullptr, false),
            "talvik_verifySignatureHash");
    };
    return {
        {"csp.sign", "CSP sign: SHA-256 of 1 KiB, RSA-2048", [&] { signThroughCsp(provider, token.context, data); },
         [&] { signDirectly(token, data); }},
        {"ksp.sign", "CNG sign: SHA-256 of 1 KiB, RSA-2048",
         [&] {
             Digest hashed = digestByBCrypt(data);
             RsaBuffer output;
             DWORD length = 0;
             requireStatus(provider.ksp->SignHash(token.kspProvider, token.kspKey, nullptr, hashed.data(), digestSize,
                                                  output.data(), sizeof output, &length, BCRYPT_PAD_PKCS1),
                           "KSPSignHash");
         },
         [&] {
             RsaBuffer output;
             signDigestDirectly(token, digestByBCrypt(data), output.data());
         }},
        {"csp.verify", "CSP verify: SHA-256 of 1 KiB, RSA-2048",
         [&] {
             const CspHash hash(provider, token.context, data);
             require(provider.verifySignature(token.context, hash, littleEndian.data(), 256, publicKey, nullptr, 0),
                     "CPVerifySignature");
         },
         [=, &token] { verifyDirectly(digestDirectly(token.deviceId, data, 1)); }},
        {"ksp.verify", "CNG verify: SHA-256 of 1 KiB, RSA-2048",
         [&] {
             Digest hashed = digestByBCrypt(data);
             requireStatus(provider.ksp->VerifySignature(token.kspProvider, token.kspKey, nullptr, hashed.data(),
                                                         digestSize, signature.data(), 256, BCRYPT_PAD_PKCS1),
                           "KSPVerifySignature");
         },
         [=] { verifyDirectly(digestByBCrypt(data)); }},
    };
}

// --- encryption ------------------------------------------------------------------------------------------------------

RsaBuffer encryptDirectly(const BenchToken& token, const Bytes& plaintext) {
    RsaBuffer output = {};
    int length = sizeof output;
    requireStatus(talvik_encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, plaintext.data(),
                                 static_cast<int>(plaintext.size()), output.data(), &length, token.publicKey.data(),
                                 static_cast<int>(token.publicKey.size()), nullptr),
                  "talvik_encrypt");
    return output;
}

std::vector<Sequence> rsaSequences(const BenchToken& token) {
    const Provider& provider = token.provider;
    static const Bytes plaintext(32, 0x77);
    static const RsaBuffer ciphertext = encryptDirectly(token, plaintext);
    static HCRYPTKEY key = 0;
    require(provider.getUserKey(token.context, AT_KEYEXCHANGE, &key), "CPGetUserKey");
    const auto decryptDirectly = [&token] {
        unsigned char* output = nullptr;
        int length = 0;
        requireStatus(talvik_decrypt(token.deviceId.c_str(), token.key.keyId, token.pin.c_str(), ciphertext.data(), 256,
                                     &output, &length, token.key.storageFlag != 0, nullptr),
                      "talvik_decrypt");
        std::free(output);
    };
    return {
        {"csp.rsa.decrypt", "CSP decrypt: RSA-2048",
         [&] {
             RsaBuffer buffer;
             std::reverse_copy(ciphertext.begin(), ciphertext.begin() + 256, buffer.begin());
             DWORD length = 256;
             require(provider.decrypt(token.context, key, 0, TRUE, 0, buffer.data(), &length), "CPDecrypt");
         },
         decryptDirectly},
        {"ksp.rsa.decrypt", "CNG decrypt: RSA-2048",
         [&] {
             RsaBuffer buffer;
             DWORD length = 0;
             requireStatus(
                 provider.ksp->Decrypt(token.kspProvider, token.kspKey, const_cast<BYTE*>(ciphertext.data()), 256,
                                       nullptr, buffer.data(), sizeof buffer, &length, NCRYPT_PAD_PKCS1_FLAG),
                 "KSPDecrypt");
         },
         decryptDirectly},
    };
}

// An AES-256 session key and an initialisation vector, known to both faces as an application makes them known: the
// key comes encrypted to the token's key pair.
struct SessionKeys {
    explicit SessionKeys(const BenchToken& token);

    Bytes value = Bytes(32, 0x21);
    Bytes iv = Bytes(aesBlock, 0x42);
    HCRYPTKEY csp = 0;
    NCRYPT_KEY_HANDLE ksp = 0;
};

SessionKeys::SessionKeys(const BenchToken& token) {
    const Provider& provider = token.provider;
    const RsaBuffer encrypted = encryptDirectly(token, value);
    struct SimpleBlob {
        PUBLICKEYSTRUC header = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, CALG_AES_256};
        ALG_ID wrappedWith = CALG_RSA_KEYX;
        BYTE ciphertext[256];
    } blob;
    std::reverse_copy(encrypted.begin(), encrypted.begin() + sizeof blob.ciphertext, blob.ciphertext);
    HCRYPTKEY exchangeKey = 0;
    require(provider.getUserKey(token.context, AT_KEYEXCHANGE, &exchangeKey), "CPGetUserKey");
    require(provider.importKey(token.context, reinterpret_cast<const BYTE*>(&blob), sizeof blob, exchangeKey, 0, &csp),
            "CPImportKey");
    require(provider.setKeyParam(token.context, csp, KP_IV, iv.data(), 0), "CPSetKeyParam(KP_IV)");
    require(provider.destroyKey(token.context, exchangeKey), "CPDestroyKey");
    requireStatus(provider.ksp->ImportKey(token.kspProvider, token.kspKey, NCRYPT_OPAQUETRANSPORT_BLOB, nullptr, &ksp,
                                          const_cast<BYTE*>(encrypted.data()), 256, 0),
                  "KSPImportKey");
}

// What the device library makes of `input` under `keys`.
Bytes encryptAesDirectly(const BenchToken& token, const SessionKeys& keys, const Bytes& input) {
    unsigned char* output = nullptr;
    int length = 0;
    requireStatus(talvik_encrypt_aes(token.deviceId.c_str(), EncryptionType::Aes256Cbc, keys.value.data(), 32,
                                     input.data(), static_cast<int>(input.size()), &output, &length, false,
                                     keys.iv.data(), aesBlock, nullptr, 0, nullptr),
                  "talvik_encrypt_aes");
    Bytes result(output, output + length);
    std::free(output);
    return result;
}

std::vector<Sequence> aesSequences(const BenchToken& token) {
    const Provider& provider = token.provider;
    static const SessionKeys keys(token);
    static Bytes plaintext(mebibyte, 0x33);
    static Bytes ciphertext = encryptAesDirectly(token, keys, plaintext);
    static Bytes buffer(mebibyte + 1024);

    // Both directions leave the result in the application's buffer, whichever way they take. CryptoAPI works in place.
    const auto encryptDirect = [&token] {
        unsigned char* output = nullptr;
        int length = 0;
        requireStatus(talvik_encrypt_aes(token.deviceId.c_str(), EncryptionType::Aes256Cbc, keys.value.data(), 32,
                                         plaintext.data(), static_cast<int>(mebibyte), &output, &length, false,
                                         keys.iv.data(), aesBlock, nullptr, 0, nullptr),
                      "talvik_encrypt_aes");
        std::copy_n(output, length, buffer.begin());
        std::free(output);
    };
    const auto decryptDirect = [&token](const Bytes& input) {
        int length = static_cast<int>(buffer.size());
        requireStatus(
            talvik_decryptSymetric(token.deviceId.c_str(), input.data(), static_cast<int>(input.size()), buffer.data(),
                                   &length, keys.iv.data(), aesBlock, keys.value.data(), 32, nullptr),
            "talvik_decryptSymetric");
    };
    const auto inPlace = [](const Bytes& input, const Work& work) {
        std::copy(input.begin(), input.end(), buffer.begin());
        work();
    };
    const auto decryptInPlaceDirect = [=] {
        static Bytes aside(ciphertext.size());
        inPlace(ciphertext, [&] {
            std::copy_n(buffer.begin(), aside.size(), aside.begin());
            decryptDirect(aside);
        });
    };
    const auto cspEncrypt = [&, inPlace] {
        inPlace(plaintext, [&] {
            DWORD length = size32(mebibyte);
            require(
                provider.encrypt(token.context, keys.csp, 0, TRUE, 0, buffer.data(), &length, size32(buffer.size())),
                "CPEncrypt");
        });
    };
    const auto cspDecrypt = [&, inPlace] {
        inPlace(ciphertext, [&] {
            DWORD length = size32(ciphertext.size());
            require(provider.decrypt(token.context, keys.csp, 0, TRUE, 0, buffer.data(), &length), "CPDecrypt");
        });
    };
    const auto kspCipher = [&](auto function, Bytes& input, const char* what) {
        return [=, &token, &input] {
            DWORD length = 0;
            requireStatus(function(token.kspProvider, keys.ksp, input.data(), size32(input.size()), nullptr,
                                   buffer.data(), size32(buffer.size()), &length, 0),
                          what);
        };
    };
    return {
        {"csp.aes.encrypt", "CSP encrypt: AES-256-CBC, 1 MiB", cspEncrypt, [=] { inPlace(plaintext, encryptDirect); }},
        {"ksp.aes.encrypt", "CNG encrypt: AES-256-CBC, 1 MiB",
         kspCipher(provider.ksp->Encrypt, plaintext, "KSPEncrypt"), encryptDirect},
        {"csp.aes.decrypt", "CSP decrypt: AES-256-CBC, 1 MiB", cspDecrypt, decryptInPlaceDirect},
        {"ksp.aes.decrypt", "CNG decrypt: AES-256-CBC, 1 MiB",
         kspCipher(provider.ksp->Decrypt, ciphertext, "KSPDecrypt"), [=] { decryptDirect(ciphertext); }},
    };
}

// --- handles ---------------------------------------------------------------------------------------------------------

std::vector<Sequence> handleSequences(const BenchToken& token) {
    const Provider& provider = token.provider;
    static Bytes random(1024);
    const auto listKeysDirectly = [&token] {
        return std::vector<TalvikKeyPair>(talvik_getKeyPairList(token.deviceId.c_str(), nullptr));
    };
    const auto openDirectly = [=] {
        talvik_init(0, nullptr, 2);
        talvik_getConnectedDeviceList(false, nullptr);
        listKeysDirectly();
    };
    return {
        {"csp.random", "CSP random: 1 KiB",
         [&] { require(provider.genRandom(token.context, size32(random.size()), random.data()), "CPGenRandom"); },
         [&] {
             requireStatus(talvik_generateRamdomNumber(token.deviceId.c_str(), static_cast<int>(random.size()),
                                                       random.data(), false, nullptr),
                           "talvik_generateRamdomNumber");
         }},
        {"csp.context", "CSP context: acquire by name, release",
         [&] { const Context context(provider, token.containerName.c_str()); }, openDirectly},
        {"csp.userkey", "CSP user key: get, destroy",
         [&] {
             HCRYPTKEY key = 0;
             require(provider.getUserKey(token.context, AT_SIGNATURE, &key), "CPGetUserKey");
             require(provider.destroyKey(token.context, key), "CPDestroyKey");
         },
         listKeysDirectly},
        {"ksp.open", "CNG key: open by name, free",
         [&, name = widened(token.containerName)] {
             NCRYPT_KEY_HANDLE key = 0;
             requireStatus(provider.ksp->OpenKey(token.kspProvider, &key, name.c_str(), 0, 0), "KSPOpenKey");
             requireStatus(provider.ksp->FreeKey(token.kspProvider, key), "KSPFreeKey");
         },
         openDirectly},
    };
}

}  // namespace

void hashThroughCsp(const Provider& provider, HCRYPTPROV context, const Bytes& piece, std::size_t size) {
    CspHash hash(provider, context);
    for (std::size_t done = 0; done < size; done += piece.size()) {
        hash.add(piece);
    }
    Digest digest;
    DWORD length = sizeof digest;
    require(provider.getHashParam(context, hash, HP_HASHVAL, digest.data(), &length, 0), "CPGetHashParam");
}

void hashDirectly(const std::string& deviceId, const Bytes& piece, std::size_t size) {
    digestDirectly(deviceId, piece, size / piece.size());
}

void signThroughCsp(const Provider& provider, HCRYPTPROV context, const Bytes& data) {
    const CspHash hash(provider, context, data);
    RsaBuffer signature;
    DWORD length = sizeof signature;
    require(provider.signHash(context, hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length), "CPSignHash");
}

void signDirectly(const BenchToken& token, const Bytes& data) {
    RsaBuffer signature;
    signDigestDirectly(token, digestDirectly(token.deviceId, data, 1), signature.data());
}

void measureSequences(const BenchToken& token, Json& rows) {
    for (const auto& family : {hashSequences, signatureSequences, rsaSequences, aesSequences, handleSequences}) {
        for (const Sequence& sequence : family(token)) {
            compareWithDirect(sequence, rows);
        }
    }
}

}  // namespace talvik::bench
