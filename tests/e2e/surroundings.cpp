#include "e2e/surroundings.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace e2e {
namespace {

constexpr DWORD hostProgramMilliseconds = 30000;

fs::path programFolder() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return fs::path(path).parent_path();
}

// "Z:\a\b" as the host names it.
std::string hostPath(const fs::path& path) {
    using GetUnixName = char*(CDECL*)(LPCWSTR);
    const auto unixName = reinterpret_cast<GetUnixName>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name")));
    char* name = unixName(path.c_str());
    const std::string copy = name ? name : "";
    HeapFree(GetProcessHeap(), 0, name);
    return copy;
}

std::string textOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A program of the host gives no handle to wait on: it leaves its exit status in a file, which appears at once whole.
Ended runOnHost(const std::string& command) {
    const fs::path ended = workFolder() / "host-status";
    fs::remove(ended);
    std::string line = "sh -c \"cd '" + hostPath(workFolder()) + "' && " + command +
                       " >host-output 2>&1 </dev/null; echo $? >host-status.new; mv host-status.new host-status\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA("Z:\\bin\\sh", line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
        ADD_FAILURE() << "the host's shell cannot be started";
        return {};
    }
    const ULONGLONG begin = GetTickCount64();
    while (!fs::exists(ended)) {
        if (GetTickCount64() - begin > hostProgramMilliseconds) {
            ADD_FAILURE() << "no answer from the host: " << command;
            return {};
        }
        Sleep(2);
    }
    return {std::stoi(textOf(ended)), textOf(workFolder() / "host-output")};
}

PROCESS_INFORMATION start(std::string line, HANDLE output) {
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION process{};
    EXPECT_TRUE(CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
        << line;
    return process;
}

}  // namespace

const fs::path& workFolder() {
    static const fs::path folder = [] {
        constexpr wchar_t inherited[] = L"TALVIK_E2E_FOLDER";
        wchar_t given[MAX_PATH] = {};
        if (GetEnvironmentVariableW(inherited, given, MAX_PATH) != 0) {
            return fs::path(given);
        }
        const fs::path made = fs::temp_directory_path() / ("talvik-e2e-" + std::to_string(GetCurrentProcessId()));
        fs::create_directories(made);
        SetEnvironmentVariableW(inherited, made.c_str());
        return made;
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

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes pattern(std::size_t size) {
    Bytes data(size);
    unsigned state = 1;
    for (unsigned char& byte : data) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<unsigned char>(state >> 24);
    }
    return data;
}

void write(const std::string& name, const Bytes& content) {
    std::ofstream file(workFolder() / name, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    EXPECT_TRUE(file.flush().good()) << name;
}

Bytes read(const std::string& name) {
    return bytesOf(textOf(workFolder() / name));
}

Ended openssl(const std::string& arguments) {
    return runOnHost("openssl " + arguments);
}

Ended tokenTool(const std::string& arguments) {
    const fs::path captured = workFolder() / "tool-output";
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    const HANDLE output = CreateFileW(captured.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    const PROCESS_INFORMATION process =
        start('"' + (programFolder().parent_path() / "talvik.exe").string() + "\" token " + arguments, output);
    CloseHandle(output);
    DWORD status = STILL_ACTIVE;
    EXPECT_EQ(WaitForSingleObject(process.hProcess, hostProgramMilliseconds), WAIT_OBJECT_0) << arguments;
    GetExitCodeProcess(process.hProcess, &status);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return {static_cast<int>(status), textOf(captured)};
}

bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, Bytes signature) {
    std::reverse(signature.begin(), signature.end());
    write("signed", data);
    write("signature", signature);
    write("public.der", publicKey);
    const Ended ended = openssl("dgst " + option + " -keyform DER -verify public.der -signature signature signed");
    return ended.status == 0 && ended.output.find("Verified OK") != std::string::npos;
}

Role::Role(const std::string& role) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    process_ = start('"' + fs::path(program).string() + "\" --role " + role, GetStdHandle(STD_ERROR_HANDLE));
}

Role::~Role() {
    TerminateProcess(process_.hProcess, 1);
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
}

DWORD Role::wait(DWORD milliseconds) {
    DWORD status = STILL_ACTIVE;
    WaitForSingleObject(process_.hProcess, milliseconds);
    GetExitCodeProcess(process_.hProcess, &status);
    return status;
}

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
    const Ended created = tokenTool("create --id " + id + " --label " + id + " --pin " + pin);
    ASSERT_EQ(created.status, 0) << created.output;
}

void Tokens::change(const std::string& command, const std::string& id) {
    const Ended changed = tokenTool(command + " " + id);
    ASSERT_EQ(changed.status, 0) << changed.output;
}

}  // namespace e2e
