#include "doctor_selftest.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <utility>

#include "doctor_system.h"
#include "log_files.h"
#include "system_text.h"

namespace talvik_tool {
namespace {

using virtual_token::systemErrorText;

using Bytes = std::vector<unsigned char>;

// SHA-256 of "abc", the example of the hash's standard; a signature over it, and the key that made it (exponent 65537).
constexpr char message[] = "abc";
constexpr char knownDigest[] = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
constexpr char knownModulus[] =
    "9B9C7D72785F77E081DCB8562CC534965BF0DDD31C4B5F61CB3AA98059F5E922C4F4CCA25B6A83493B5957A938093A8E"
    "ADC8CCB68BDAAAF6A31308854ADA2B45F88E7C5A0E728A16FABD5124764F73297818F3957523442BF029F5245FEC37D5"
    "2A182CC77A77999825E45A748B1FBFDF4A6C8CD8F9D1CB7A94DF78A9C0DD64C0DC4BAD4D2A064D14D2597EBB396A7A23"
    "7BB5E7DA6B6074ABDAD75BC63C38E6375DC324DE52A4FA0A8F96E1BDABF35726172D44A39A6A93781117D7A748C6AFCA"
    "FC8D427EDBEF347F9D0FF5935EA29FDB38D63F7645813B19140CA98A08E597F01369E46D55D8C749334D8DFA0C6732DA"
    "F31CEA393E930DC867A25FA0341D9967";
constexpr char knownSignature[] =
    "4B902A661BF55DD1785084AC5834A023206706708B39EA01BF120709E69E4BF402789442D99C42599249DFF5DCA3F86C"
    "65862E98364AC930B84AEC2D42D3FAE96EADF59DD550A9731F85996DF6A69D8692179265F2F55D30BEE3187F80B85BD1"
    "4439D1F8A5E8E4E9FEAC997C37F7381910170DC4B306133007327E0E87B7193DC602F295A512E9873F159B598DBF9EB6"
    "51E8675A5C573EE033A51DC2D7911BB33B716F50FDB5CAF16E5636670244FC4EEAFC79EAA24B1E1DECEE359B9A3185B8"
    "7239D8C4ED9C250BC3BC320F211BEF7C5261D7DAAED42515BE016436000072AA314EE7AD545D39374225788386041173"
    "00ECA136599F7EF5269EE8F4B3DDEC51";

Bytes fromHex(const char* text) {
    Bytes bytes;
    for (; *text != '\0'; text += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(std::string(text, 2), nullptr, 16)));
    }
    return bytes;
}

// CryptoAPI takes numbers least significant byte first.
Bytes numberFromHex(const char* text) {
    Bytes bytes = fromHex(text);
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

template <class Handle, auto release>
class Owned {
  public:
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() {
        if (handle_ != 0) {
            release(handle_);
        }
    }
    operator Handle() const { return handle_; }
    Handle* put() { return &handle_; }

  private:
    Handle handle_ = 0;
};
inline BOOL releaseContext(HCRYPTPROV context) {
    return CryptReleaseContext(context, 0);
}
using Context = Owned<HCRYPTPROV, releaseContext>;
using Hash = Owned<HCRYPTHASH, CryptDestroyHash>;
using Key = Owned<HCRYPTKEY, CryptDestroyKey>;

void require(BOOL succeeded, const char* function) {
    if (!succeeded) {
        throw std::runtime_error(std::string(function) + ": " + systemErrorText(GetLastError()));
    }
}

void requireThat(bool holds, const char* otherwise) {
    if (!holds) {
        throw std::runtime_error(otherwise);
    }
}

void hashMessage(HCRYPTPROV context, Hash& hash) {
    require(CryptCreateHash(context, CALG_SHA_256, 0, 0, hash.put()), "CryptCreateHash");
    require(CryptHashData(hash, reinterpret_cast<const BYTE*>(message), sizeof message - 1, 0), "CryptHashData");
}

void testHash(HCRYPTPROV context) {
    Hash hash;
    hashMessage(context, hash);
    Bytes digest(32);
    auto size = static_cast<DWORD>(digest.size());
    require(CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &size, 0), "CryptGetHashParam");
    requireThat(digest == fromHex(knownDigest), "SHA-256 gives a wrong digest");
}

void testRandom(HCRYPTPROV context) {
    std::array<std::array<BYTE, 32>, 2> drawn = {};
    for (auto& bytes : drawn) {
        require(CryptGenRandom(context, static_cast<DWORD>(bytes.size()), bytes.data()), "CryptGenRandom");
    }
    requireThat(drawn[0] != drawn[1], "the random numbers repeat");
}

// A PUBLICKEYBLOB with the known key.
Bytes knownKeyBlob() {
    const Bytes modulus = numberFromHex(knownModulus);
    const BLOBHEADER header = {PUBLICKEYBLOB, CUR_BLOB_VERSION, 0, CALG_RSA_SIGN};
    const RSAPUBKEY key = {0x31415352, static_cast<DWORD>(modulus.size() * 8), 65537};  // "RSA1"
    Bytes blob(sizeof header + sizeof key);
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &key, sizeof key);
    blob.insert(blob.end(), modulus.begin(), modulus.end());
    return blob;
}

bool verifies(HCRYPTPROV context, HCRYPTKEY key, const Bytes& signature) {
    Hash hash;
    hashMessage(context, hash);
    return CryptVerifySignatureW(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0) !=
           FALSE;
}

void testVerify(HCRYPTPROV context) {
    const Bytes blob = knownKeyBlob();
    Key key;
    require(CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), 0, 0, key.put()), "CryptImportKey");
    Bytes signature = numberFromHex(knownSignature);
    require(verifies(context, key, signature), "CryptVerifySignature");
    signature[10] ^= 1;
    requireThat(!verifies(context, key, signature), "an altered signature is taken for valid");
}

// The signature is checked by the provider and, where its key can be exported, by the system's own provider.
void testSign(const SignRequest& request) {
    Context context;
    require(
        CryptAcquireContextW(context.put(), std::wstring(request.container.begin(), request.container.end()).c_str(),
                             providerName, PROV_RSA_FULL, 0),
        "CryptAcquireContext");
    if (!request.pin.empty()) {
        require(CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(request.pin.c_str()), 0),
                "CryptSetProvParam(PP_SIGNATURE_PIN)");
    }
    Hash hash;
    hashMessage(context, hash);
    Bytes signature(1024);
    auto size = static_cast<DWORD>(signature.size());
    require(CryptSignHashW(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &size), "CryptSignHash");
    signature.resize(size);
    Key key;
    require(CryptGetUserKey(context, AT_SIGNATURE, key.put()), "CryptGetUserKey");
    require(verifies(context, key, signature), "CryptVerifySignature");
    Bytes blob(2048);
    auto blobSize = static_cast<DWORD>(blob.size());
    if (!CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &blobSize)) {
        return;
    }
    Context system;
    Key exported;
    require(CryptAcquireContextW(system.put(), nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT),
            "the system's provider: CryptAcquireContext");
    require(CryptImportKey(system, blob.data(), blobSize, 0, 0, exported.put()),
            "the system's provider: CryptImportKey");
    require(verifies(system, exported, signature), "the system's provider: CryptVerifySignature");
}

// This process's own log.
class OwnLog {
  public:
    OwnLog() : path_(ownLogFolder() / logNameOfToday()) {
        std::error_code missing;
        const std::uintmax_t size = std::filesystem::file_size(path_, missing);
        start_ = missing ? 0 : size;
    }

    // The first error since this began or was last asked; empty when there was none.
    std::string takeFirstError() {
        static constexpr char tag[] = "ERROR ::=>";
        std::ifstream file(path_, std::ios::binary);
        file.seekg(static_cast<std::streamoff>(start_));
        std::string found;
        for (std::string line; std::getline(file, line); start_ += line.size() + 1) {
            if (const auto at = line.find(tag); found.empty() && at != std::string::npos) {
                found = line.substr(at + sizeof tag - 1);
            }
        }
        return found;
    }

  private:
    std::filesystem::path path_;
    std::uintmax_t start_ = 0;
};

std::string remedyFor(const std::string& step) {
    if (step == "acquire") {
        return "See what is said of the provider, the device library and the tokens; docs/troubleshooting lists codes.";
    }
    return step == "sign" ? "Check the PIN and the token; docs/troubleshooting lists the codes."
                          : "The device library fails: repair the token maker's software, or try another token.";
}

}  // namespace

std::vector<SelfTestStep> runSelfTest(bool withToken, const std::optional<SignRequest>& request, Findings& findings) {
    std::vector<SelfTestStep> steps;
    OwnLog log;
    const auto step = [&](const char* name, const std::function<void()>& test) {
        SelfTestStep outcome{name, true, ""};
        try {
            test();
        } catch (const std::exception& problem) {
            outcome = {name, false, problem.what()};
            const std::string logged = log.takeFirstError();
            if (!logged.empty()) {
                outcome.detail += "; the provider logged \"" + logged + "\"";
            }
            findings.problem(std::string("Self-test, ") + name + ": " + outcome.detail, remedyFor(name));
        }
        log.takeFirstError();
        steps.push_back(outcome);
        return outcome.passed;
    };

    Context context;
    const bool acquired = step("acquire", [&] {
        require(CryptAcquireContextW(context.put(), nullptr, providerName, PROV_RSA_FULL,
                                     withToken ? 0 : CRYPT_VERIFYCONTEXT),
                "CryptAcquireContext");
    });
    if (acquired) {
        step("hash", [&] { testHash(context); });
        step("random", [&] { testRandom(context); });
        step("verify", [&] { testVerify(context); });
        if (request) {
            step("sign", [&] { testSign(*request); });
        }
    }
    return steps;
}

}  // namespace talvik_tool
