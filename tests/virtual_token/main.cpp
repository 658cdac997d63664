#include <cstdlib>
#include <cstring>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

Result takeOver(int status, unsigned char* output, int length) {
    Result result{status, {}};
    if (output != nullptr) {
        result.bytes.assign(output, output + length);
        std::free(output);
    }
    return result;
}

}  // namespace

int talvik(const std::string& arguments, const std::filesystem::path& output) {
    std::wstring line = thisProgram();
    line.replace(line.rfind(L'\\') + 1, std::wstring::npos, L"talvik.exe\" ");
    line += std::wstring(arguments.begin(), arguments.end());
    if (!output.empty()) {
        line = L"cmd /c \"" + line + L" > \"" + output.wstring() + L"\"\"";
    }
    return static_cast<int>(ChildProcess(line).wait());
}

Key generate(std::uint32_t type, std::uint32_t usage, const char* withPin) {
    Key key{};
    key.record.keyType = type;
    key.record.usage = usage;
    key.status = talvik_generateKeyPair(device, withPin, &key.record, nullptr);
    return key;
}

Result sign(const Key& key, const Bytes& digest, bool pss, const char* withPin) {
    Result result{0, Bytes(1024)};
    int length = static_cast<int>(result.bytes.size());
    result.status = talvik_signHash(device, key.id(), withPin, digest.data(), static_cast<int>(digest.size()),
                                    result.bytes.data(), &length, false, nullptr, pss);
    result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

Result decrypt(const Key& key, const Bytes& ciphertext, const char* withPin) {
    unsigned char* output = nullptr;
    int length = 0;
    const int status = talvik_decrypt(device, key.id(), withPin, ciphertext.data(), static_cast<int>(ciphertext.size()),
                                      &output, &length, true, nullptr);
    return takeOver(status, output, length);
}

Result encryptAes(EncryptionType type, const Bytes& key, const Bytes& plaintext, const Bytes& iv) {
    unsigned char* output = nullptr;
    int length = 0;
    const int status = talvik_encrypt_aes(
        "", type, key.data(), static_cast<int>(key.size()), plaintext.data(), static_cast<int>(plaintext.size()),
        &output, &length, false, iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()), nullptr, 0, nullptr);
    return takeOver(status, output, length);
}

Result decryptAes(const Bytes& key, const Bytes& ciphertext, const Bytes& iv) {
    Result result{0, Bytes(ciphertext.size())};
    int length = static_cast<int>(ciphertext.size());
    result.status =
        talvik_decryptSymetric("", ciphertext.data(), static_cast<int>(ciphertext.size()), result.bytes.data(), &length,
                               iv.empty() ? nullptr : iv.data(), static_cast<int>(iv.size()), key.data(),
                               static_cast<int>(key.size()), nullptr);
    result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

Result hashOf(int algorithm, const Bytes& data) {
    void* hash = nullptr;
    Result result{talvik_initHash("", algorithm, &hash, nullptr), Bytes(128)};
    if (result.status == 0) {
        result.status = talvik_updateHash(hash, data.data(), static_cast<int>(data.size()), nullptr);
    }
    int length = static_cast<int>(result.bytes.size());
    if (result.status == 0) {
        result.status = talvik_finalHash(hash, result.bytes.data(), &length, nullptr);
    }
    result.bytes.resize(result.status == 0 ? static_cast<std::size_t>(length) : 0);
    return result;
}

int verify(const Bytes& publicKeyInfo, const Bytes& digest, const Bytes& signature, bool pss) {
    return talvik_verifySignatureHash(2, "", digest.data(), static_cast<int>(digest.size()), publicKeyInfo.data(),
                                      static_cast<int>(publicKeyInfo.size()), signature.data(),
                                      static_cast<int>(signature.size()), nullptr, pss);
}

int login(const char* withPin, int* remaining) {
    int ignored = 0;
    return talvik_validatePassword(device, withPin, 1, remaining != nullptr ? remaining : &ignored, nullptr);
}

VirtualTokenTest::VirtualTokenTest() {
    SetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", (scratch.path() / "tokens").c_str());
    EXPECT_EQ(talvik("token create --id T1 --label \"A token\" --pin 1234"), 0);
}

Bytes VirtualTokenTest::publicKeyFile(const Key& key) const {
    const Bytes stored(key.record.modulus, key.record.modulus + key.record.modulusLength);
    if (key.record.keyType <= TALVIK_KEY_RSA_4096) {
        writeRsaKey(scratch, "key", stored);
        return scratch.read("key.der");
    }
    scratch.write("key.der", stored);
    openssl(scratch, "pkey -pubin -inform DER -in key.der -out key.pem");
    return stored;
}

}  // namespace talvik_test

// A test starts this program again as another process: virtual_token_tests --as ROLE.
int main(int argumentCount, char** arguments) {
    if (argumentCount == 3 && std::strcmp(arguments[1], "--as") == 0) {
        return talvik_test::runAsChild(arguments[2]);
    }
    testing::InitGoogleTest(&argumentCount, arguments);
    return RUN_ALL_TESTS();
}
