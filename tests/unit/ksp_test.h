// What the tests of the CNG face have in common: the function table as the system gets it, and one way to say what a
// call returned, logged and asked of the token.
#pragma once

#include "ksp/key.h"
#include "ksp/ncrypt_provider.h"
#include "ksp/provider.h"
#include "unit/provider_test.h"

using talvik::ksp::keyOf;
using talvik::ksp::KspKey;
using talvik::ksp::providerOf;

inline constexpr char PIN[] = "1234";

class KspTest : public ProviderTest {
  protected:
    KspTest();
    ~KspTest() override;

    // A provider on the first of the tokens that attachTokens attaches, released at the end of the test. What its
    // opening logged and asked of the token is past.
    NCRYPT_PROV_HANDLE open();

    // The key on the provider's token; an imported one. Released at the end of the test.
    NCRYPT_KEY_HANDLE openKey(NCRYPT_PROV_HANDLE provider, const TalvikKeyPair& record);
    NCRYPT_KEY_HANDLE aesKey(std::size_t length);
    NCRYPT_KEY_HANDLE keep(NCRYPT_KEY_HANDLE key);

    // One token key of 2048 bits, opened, with a validated PIN.
    NCRYPT_KEY_HANDLE openOnlyKey(std::uint32_t keyType = TALVIK_KEY_RSA_2048, std::uint32_t modulusBytes = 256);

    // Calls and checks the whole of what can be seen. The entry point's own DEBUG line is not among `lines`.
    using Act = std::function<SECURITY_STATUS()>;
    void expect(SECURITY_STATUS status, const std::string& entryPoint, const Act& act, const Lines& lines = {},
                const Lines& deviceCalls = {}, Where where = Where::current());

    // A failure, of which only the status and the last line count.
    void expectError(const Act& act, SECURITY_STATUS status, const std::string& lastLine,
                     Where where = Where::current());

    // A refusal without a device call: one ERROR line, the last. The second is to be called with the status, the text
    // and the arguments that are refused.
    void expectRefused(const std::string& entryPoint, const Act& act, SECURITY_STATUS status, const std::string& text,
                       Where where = Where::current());
    template <class... Parameters>
    auto refusalsOf(const std::string& entryPoint, SECURITY_STATUS(WINAPI* function)(Parameters...)) {
        return [=, this](SECURITY_STATUS status, const std::string& text, Parameters... arguments) {
            expectRefused(
                entryPoint, [=] { return function(arguments...); }, status, text);
        };
    }

    // What goes for every operation under the PIN: when the single sign-on has expired it asks once more and no more,
    // what the user gives up fails, and a silent call shows nothing. `before` and `after` are the lines around the
    // device call; the texts call the operation `name` and, when the token refuses it, `failed`.
    struct UnderPin {
        std::string entryPoint, operation, name, failed;
        std::function<Act(DWORD flags)> calling;
        Lines before, after;
        std::function<std::string(const std::string& pin)> deviceCall;
    };
    void expectPinHandling(const UnderPin& of, Where where = Where::current());

    // A value by name; checks the size query, a buffer one byte short and the exact buffer.
    Bytes readKeyProperty(NCRYPT_KEY_HANDLE key, const wchar_t* name, Where where = Where::current());

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp;
    NCRYPT_PROV_HANDLE hProv = 0;

  private:
    std::vector<NCRYPT_PROV_HANDLE> providers_;
    std::vector<NCRYPT_KEY_HANDLE> keys_;
};

// Reads by the size rule: query, one byte short, exact.
Bytes readBySizeRule(const std::function<SECURITY_STATUS(BYTE*, DWORD, DWORD*)>& read);

inline const std::string KEY_ID = "abababababababababababababababab";  // of the only key
inline const Bytes HASH = bytes(32);
inline const Lines PIN_KNOWN = {"DEBUG KSP: PIN already validated"};
inline const Lines PIN_ASKED = Lines{"DEBUG KSP: Password not validated, checking SSO"} + dialogShown;

template <class Value>
Value valueOf(const Bytes& bytes) {
    Value value{};
    EXPECT_EQ(bytes.size(), sizeof value);
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof value), reinterpret_cast<unsigned char*>(&value));
    return value;
}
template <class Value>
BYTE* bytesOf(Value& value) {
    return reinterpret_cast<BYTE*>(&value);
}
Bytes utf16(const std::wstring& text);  // with its NUL
