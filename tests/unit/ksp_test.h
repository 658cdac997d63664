// What the tests of the CNG face have in common: the function table as the system gets it, and what every call under
// the PIN does.
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

    // A provider on the first of the tokens that attachTokens attaches. What its opening logged and asked of the token
    // is past, here and below.
    NCRYPT_PROV_HANDLE open();

    // In `key`: the key on the provider's token; an imported one.
    NCRYPT_KEY_HANDLE openKey(const TalvikKeyPair& record);
    NCRYPT_KEY_HANDLE aesKey(std::size_t length);

    // One token key of 2048 bits, opened, with a validated PIN.
    NCRYPT_KEY_HANDLE openOnlyKey(std::uint32_t keyType = TALVIK_KEY_RSA_2048, std::uint32_t modulusBytes = 256);

    std::string textOf(long status) const override;

    // What goes for every operation under the PIN, here with the call's flags: as showRenewal says, a silent call shows
    // nothing, and single sign-on goes with an empty PIN.
    void showPinHandling(const std::string& operation, const std::function<long(DWORD flags)>& call);

    // A value by name; checks the size query, a buffer one byte short and the exact buffer.
    Bytes readKeyProperty(const wchar_t* name, Where where = Where::current());

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp;
    NCRYPT_PROV_HANDLE hProv = 0;
    NCRYPT_KEY_HANDLE key = 0;

  private:
    talvik::ksp::KspProvider neverOpened_;
};

// Reads by the size rule: query, one byte short, exact.
Bytes readBySizeRule(const std::function<SECURITY_STATUS(BYTE*, DWORD, DWORD*)>& read);

std::string factsOfKspKey(NCRYPT_KEY_HANDLE key);

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
