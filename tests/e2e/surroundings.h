// The surroundings of the end-to-end tests: tokens of their own, the host's openssl, owned CryptoAPI handles.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace e2e {

using Bytes = std::vector<unsigned char>;

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

Bytes bytesOf(const std::string& text);
Bytes pattern(std::size_t size);
void write(const std::string& name, const Bytes& content);  // into workFolder()
Bytes read(const std::string& name);

// A folder of this run's own, shared with the roles; openssl's current directory.
const std::filesystem::path& workFolder();

struct Ended {
    int status = -1;
    std::string output;
};
Ended openssl(const std::string& arguments);
Ended tokenTool(const std::string& arguments);  // talvik.exe token ...

// Whether openssl accepts `signature`, in CryptoAPI's order, over `data`; `option` is "-sha256" and the like.
bool opensslAccepts(const Bytes& publicKey, const std::string& option, const Bytes& data, Bytes signature);

// This program in another process, playing one of the roles of roles.cpp.
class Role {
  public:
    explicit Role(const std::string& role);
    ~Role();
    Role(const Role&) = delete;
    Role& operator=(const Role&) = delete;
    DWORD processId() const { return process_.dwProcessId; }
    // The exit status, or nothing (259) when it has not ended in time.
    DWORD wait(DWORD milliseconds = 60000);

  private:
    PROCESS_INFORMATION process_{};
};
int playRole(const std::string& role);

// Tokens "T1" and, where a test adds it, others; a home of its own for each test. The provider remembers by token
// identifier what it knows of a token, so each test gives its tokens new identifiers.
class Tokens : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    void addToken(const std::string& id);
    void change(const std::string& command, const std::string& id);  // "detach", "attach", ...
    const std::string& token() const { return token_; }

  private:
    std::string token_;
};

}  // namespace e2e
