#include "e2e/surroundings.h"

#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace e2e {
namespace {

constexpr wchar_t folderVariable[] = L"TALVIK_E2E_FOLDER";

DWORD tokenTool(const std::string& arguments) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::string tool = (fs::path(program).parent_path().parent_path() / "talvik.exe").string();
    const std::string line = '"' + tool + "\" token " + arguments;
    return talvik_test::ChildProcess(std::wstring(line.begin(), line.end())).wait();
}

}  // namespace

const talvik_test::ScratchFolder& scratch() {
    static const talvik_test::ScratchFolder folder;
    return folder;
}

const fs::path& workFolder() {
    static const fs::path folder = [] {
        wchar_t given[MAX_PATH] = {};
        if (GetEnvironmentVariableW(folderVariable, given, MAX_PATH) != 0) {
            return fs::path(given);
        }
        SetEnvironmentVariableW(folderVariable, scratch().path().c_str());
        return scratch().path();
    }();
    return folder;
}

Context acquire(const char* container, DWORD flags) {
    Context context;
    if (!CryptAcquireContextA(context.put(), container, providerName, PROV_RSA_FULL, flags)) {
        *context.put() = 0;
    }
    return context;
}

Key generate(const Context& context, ALG_ID algorithm, DWORD bits) {
    Key key;
    CryptGenKey(context, algorithm, bits << 16, key.put());
    return key;
}

Key userKey(const Context& context, DWORD keySpec) {
    Key key;
    CryptGetUserKey(context, keySpec, key.put());
    return key;
}

Hash digest(const Context& context, ALG_ID algorithm, const Bytes& data) {
    Hash hash;
    EXPECT_TRUE(CryptCreateHash(context, algorithm, 0, 0, hash.put()));
    EXPECT_TRUE(CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0));
    return hash;
}

Bytes sign(const Hash& hash) {
    DWORD size = 0;
    if (!CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &size)) {
        return {};
    }
    Bytes signature(size);
    if (!CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &size)) {
        return {};
    }
    signature.resize(size);
    return signature;
}

Bytes publicKey(const Context& context) {
    DWORD size = 0;
    EXPECT_TRUE(CryptExportPublicKeyInfo(context, AT_SIGNATURE, X509_ASN_ENCODING, nullptr, &size));
    Bytes info(size);
    auto* key = reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(info.data());
    EXPECT_TRUE(CryptExportPublicKeyInfo(context, AT_SIGNATURE, X509_ASN_ENCODING, key, &size));
    Bytes der(size + 64);
    auto length = static_cast<DWORD>(der.size());
    EXPECT_TRUE(CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, key, der.data(), &length));
    der.resize(length);
    return der;
}

DWORD keyParameter(const Key& key, DWORD parameter) {
    DWORD value = 0;
    DWORD size = sizeof value;
    EXPECT_TRUE(CryptGetKeyParam(key, parameter, reinterpret_cast<BYTE*>(&value), &size, 0));
    return value;
}

void write(const std::string& name, const Bytes& content) {
    std::ofstream file(workFolder() / name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    EXPECT_TRUE(file.flush().good()) << name;
}

Bytes read(const std::string& name) {
    std::ifstream file(workFolder() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

talvik_test::OpensslResult openssl(const std::string& arguments) {
    return talvik_test::tryOpenssl(scratch(), arguments);
}

void run(const std::string& arguments) {
    const talvik_test::OpensslResult ended = openssl(arguments);
    EXPECT_EQ(ended.exitCode, 0) << "openssl " << arguments << '\n' << ended.output;
}

Bytes certificateForPublicKey(const std::string& subject) {
    run("req -x509 -newkey rsa:2048 -nodes -keyout issuer.key -out issuer.pem -subj /CN=Issuer -days 3");
    run("req -new -key issuer.key -subj /CN=" + subject + " -out request");
    run("x509 -req -in request -CA issuer.pem -CAkey issuer.key -set_serial 7 -days 2 -force_pubkey public.der "
        "-keyform DER -outform DER -out certificate.der");
    return read("certificate.der");
}

bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, const Bytes& signature) {
    write("signed", data);
    write("signature", reversed(signature));
    write("public.der", publicKey);
    return openssl("dgst " + option + " -keyform DER -verify public.der -signature signature signed").exitCode == 0;
}

Role::Role(const std::string& role, const std::string& name)
    : ChildProcess(talvik_test::thisProgram() + L" --role " + std::wstring(role.begin(), role.end()) + L' ' +
                   std::wstring(name.begin(), name.end())) {}

void Tokens::SetUp() {
    static int made = 0;
    const fs::path home = workFolder() / ("home-" + std::to_string(++made));
    fs::create_directories(home);
    SetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", home.c_str());
    token_ = "T" + std::to_string(made);
    addToken(token_);
}

void Tokens::TearDown() {
    wchar_t home[MAX_PATH] = {};
    GetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", home, MAX_PATH);
    std::error_code busy;
    fs::remove_all(home, busy);
}

void Tokens::addToken(const std::string& id) {
    ASSERT_EQ(tokenTool("create --id " + id + " --pin " + pin), 0u);
}

void Tokens::change(const std::string& command, const std::string& id) {
    ASSERT_EQ(tokenTool(command + ' ' + id), 0u) << command;
}

}  // namespace e2e
