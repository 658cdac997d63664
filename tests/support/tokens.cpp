#include "support/tokens.h"

#include <cstdlib>
#include <map>

#include "support/log_reader.h"

namespace fs = std::filesystem;

namespace talvik_test {
namespace {

constexpr char folderVariable[] = "TALVIK_TEST_FOLDER";

std::map<std::string, PlayedRole::Play>& roles() {
    static std::map<std::string, PlayedRole::Play> instance;
    return instance;
}

std::wstring wide(const std::string& utf8) {
    return fs::path(std::u8string(utf8.begin(), utf8.end())).wstring();
}

}  // namespace

const ScratchFolder& scratch() {
    static const char* const given = std::getenv(folderVariable);
    static const ScratchFolder folder = given != nullptr ? ScratchFolder(given) : ScratchFolder();
    SetEnvironmentVariableA(folderVariable, folder.path().string().c_str());
    return folder;
}

void write(const std::string& name, const Bytes& content) {
    scratch().write(name, content);
}

Bytes read(const std::string& name) {
    return scratch().read(name);
}

std::string run(const std::string& arguments) {
    return openssl(scratch(), arguments);
}

bool opensslAgrees(const std::string& arguments) {
    return tryOpenssl(scratch(), arguments).exitCode == 0;
}

Bytes certificateForPublicKey(const std::string& subject) {
    run("req -x509 -newkey rsa:2048 -nodes -keyout issuer.key -out issuer.pem -subj /CN=Issuer -days 3");
    run("req -new -key issuer.key -subj /CN=" + subject + " -out request");
    run("x509 -req -in request -CA issuer.pem -CAkey issuer.key -set_serial 7 -days 2 -force_pubkey public.der "
        "-keyform DER -outform DER -out certificate.der");
    return read("certificate.der");
}

std::wstring talvikCommand(const std::string& arguments) {
    fs::path folder = fs::path(thisProgram().substr(1)).parent_path();
    if (!fs::exists(folder / "talvik.exe")) {
        folder = folder.parent_path();
    }
    return L'"' + (folder / "talvik.exe").wstring() + L"\" " + wide(arguments);
}

int talvik(const std::string& arguments, const std::string& output) {
    std::wstring line = talvikCommand(arguments);
    if (!output.empty()) {
        line = L"cmd /c \"" + line + L" > \"" + (scratch().path() / output).wstring() + L"\"\"";
    }
    return static_cast<int>(ChildProcess(line).wait());
}

Role::Role(const std::string& role, const std::string& name)
    : ChildProcess(thisProgram() + L" --role " + wide(role) + L' ' + wide(name)) {}

PlayedRole::PlayedRole(const std::string& role, Play play) {
    roles()[role] = play;
}

Tokens::Tokens(const std::string& id) {
    static int made = 0;
    const std::string number = std::to_string(++made);
    token_ = id.empty() ? "T" + number : id;
    home_ = "home-" + number;
    fs::create_directories(scratch().path() / home_);
    SetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", (scratch().path() / home_).c_str());
    addToken(token_);
}

Tokens::~Tokens() {
    std::error_code busy;
    fs::remove_all(scratch().path() / home_, busy);
}

void Tokens::addToken(const std::string& id) {
    ASSERT_EQ(talvik("token create --id " + id + " --pin " + pin), 0);
}

void Tokens::change(const std::string& command, const std::string& id) {
    ASSERT_EQ(talvik("token " + command + ' ' + id), 0) << command;
}

}  // namespace talvik_test

// PROGRAM --role ROLE NAME plays a role; otherwise the tests run.
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc == 4 && std::string(argv[1]) == "--role") {
        const auto role = talvik_test::roles().find(argv[2]);
        const int status = role == talvik_test::roles().end() ? 99 : role->second(argv[3]);
        return status == 0 && ::testing::Test::HasFailure() ? 98 : status;
    }
    useOwnTemporaryFolder();
    setLogLevel(std::nullopt);
    return RUN_ALL_TESTS();
}
