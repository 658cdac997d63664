// The surroundings of the end-to-end tests: tokens of their own, the host's openssl, owned CryptoAPI handles.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"

namespace e2e {

using talvik_test::Bytes, talvik_test::bytesOf, talvik_test::hex, talvik_test::pattern, talvik_test::reversed;

inline constexpr char providerName[] = "Talvik Cryptographic Provider CSP";
inline constexpr char pin[] = "1234";

template <class Handle, auto release>
class Owned {
  public:
    Owned() = default;
    Owned(Owned&& other) noexcept : handle_(std::exchange(other.handle_, Handle{})) {}
    Owned& operator=(Owned&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Owned() { reset(); }
    operator Handle() const { return handle_; }
    Handle* put() { return &handle_; }
    void reset() {
        if (handle_) {
            EXPECT_TRUE(release(std::exchange(handle_, Handle{})));
        }
    }

  private:
    Handle handle_{};
};

inline BOOL releaseContext(HCRYPTPROV context) {
    return CryptReleaseContext(context, 0);
}
using Context = Owned<HCRYPTPROV, releaseContext>;
using Key = Owned<HCRYPTKEY, CryptDestroyKey>;
using Hash = Owned<HCRYPTHASH, CryptDestroyHash>;

// Each answers an empty handle and leaves the last error when the call fails.
Context acquire(const char* container = nullptr, DWORD flags = 0);
Key generate(const Context& context, ALG_ID algorithm = CALG_RSA_SIGN, DWORD bits = 0);
Key userKey(const Context& context, DWORD keySpec = AT_SIGNATURE);
Hash digest(const Context& context, ALG_ID algorithm, const Bytes& data);

// The signature in CryptoAPI's order; empty, with the last error, when it is refused.
Bytes sign(const Hash& hash);

// DER of the signing key's SubjectPublicKeyInfo.
Bytes publicKey(const Context& context);

DWORD keyParameter(const Key& key, DWORD parameter);

void write(const std::string& name, const Bytes& content);  // into workFolder()
Bytes read(const std::string& name);

// A folder of this run's own, shared with its roles; openssl's current directory.
const std::filesystem::path& workFolder();

const talvik_test::ScratchFolder& scratch();  // the same, for this process alone

talvik_test::OpensslResult openssl(const std::string& arguments);
void run(const std::string& arguments);  // expects openssl to succeed

// DER of a certificate, signed by somebody else, for the key in public.der.
Bytes certificateForPublicKey(const std::string& subject);

// Whether openssl accepts `signature`, in CryptoAPI's order, over `data`; `option` is "-sha256" and the like.
bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, const Bytes& signature);

// This program in another process, playing one of its roles; `name` tells two players of a role apart.
class Role : public talvik_test::ChildProcess {
  public:
    explicit Role(const std::string& role, const std::string& name = "only");
};
using Roles = std::map<std::string, int (*)(const std::string& name)>;  // what each gives is the exit status
extern const Roles roles;                                               // of this program

// One token, and those that a test adds, in a home of its own for each test. The provider remembers by token identifier
// what it knows of a token, so the identifiers differ from test to test.
class Tokens : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    void addToken(const std::string& id);
    void change(const std::string& command, const std::string& id);  // a command of "talvik token": "detach", ...
    const std::string& token() const { return token_; }

  private:
    std::string token_;
};

}  // namespace e2e
