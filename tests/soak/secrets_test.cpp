// No PIN and no AES key stays in the process when the provider has no more use for it.
#include <array>
#include <cstring>
#include <iostream>

#include "e2e/surroundings.h"
#include "soak/cng_table.h"
#include "soak/memory_search.h"
#include "soak/roles.h"
#include "support/dialog_robot.h"

namespace soak {
namespace {

using namespace e2e;

// Short texts live inside their string object, long ones on the heap.
constexpr MaskedText shortPin("Kq7#Vd2pXw"), longPin("mW4;tGz9eR1(jS6$aQ0-nB8:uF3=cY5");
constexpr MaskedText aesValue("z8Rf!u3LbT0yHn5CxM7_dJ2%oP9@wE4h");
constexpr int editOfPin = 1001;

void tool(const std::string& arguments) {
    std::wstring program = talvik_test::thisProgram();
    program.erase(program.rfind(L'\\', program.rfind(L'\\') - 1));
    program += L"\\talvik.exe\" token " + std::wstring(arguments.begin(), arguments.end());
    EXPECT_EQ(talvik_test::ChildProcess(program).wait(), 0u) << arguments;
}

void expectNone(const char* when, const std::vector<std::string>& copies) {
    for (const std::string& copy : copies) {
        ADD_FAILURE() << when << ": " << copy;
    }
}

// Types key by key, as a person does: no message carries the whole PIN.
void typeInto(const PinDialog& dialog, const MaskedText& tokenPin) {
    const HWND edit = GetDlgItem(dialog.window(), editOfPin);
    for (std::size_t i = 0; i < tokenPin.size(); ++i) {
        SendMessageA(edit, WM_CHAR, static_cast<WPARAM>(tokenPin.at(i)), 0);
    }
    dialog.login();
}

bool handOver(const Context& context, const MaskedText& tokenPin) {
    return tokenPin.reveal([&](char* text) {
        return CryptSetProvParam(context, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(text), 0) != FALSE;
    });
}

SECURITY_STATUS signSilently(const CngKey& key) {
    std::array<BYTE, 32> digest{};
    std::array<BYTE, 512> signature{};
    DWORD size = 0;
    return cng().SignHash(key.provider(), key.key(), nullptr, digest.data(), 32, signature.data(), 512, &size,
                          NCRYPT_SILENT_FLAG | BCRYPT_PAD_PKCS1);
}

// Each ends with the PIN in the provider's keeping.
void enterByParameter(const Context& context, const CngKey&, const MaskedText& tokenPin) {
    EXPECT_TRUE(handOver(context, tokenPin));
}
void enterByProperty(const Context&, const CngKey& key, const MaskedText& tokenPin) {
    EXPECT_EQ(tokenPin.reveal([&](char* text) {
        return cng().SetProviderProperty(key.provider(), NCRYPT_PIN_PROPERTY, reinterpret_cast<PBYTE>(text),
                                         static_cast<DWORD>(tokenPin.size() + 1), 0);
    }),
              ERROR_SUCCESS);
}
void enterByDialog(const Context& context, const CngKey&, const MaskedText& tokenPin) {
    DialogRobot robot;
    robot.enters("wrong PIN").does([&](const PinDialog& dialog) { typeInto(dialog, tokenPin); });
    EXPECT_FALSE(sign(digest(context, CALG_SHA_256, bytesOf("asked"))).empty());
    robot.finish();
}

// Each makes the provider forget it.
void forgetByUnplugging(const std::string& token, const CngKey&) {
    tool("detach " + token);
    Sleep(2500);  // two polls of the monitor
}
void forgetByExpiry(const std::string& token, const CngKey& key) {
    tool("sso expire " + token);
    EXPECT_EQ(signSilently(key), NTE_SILENT_CONTEXT);
}

using Enter = void (*)(const Context&, const CngKey&, const MaskedText&);
using Forget = void (*)(const std::string& token, const CngKey&);

void keepPin(const std::string& token, const std::string& container, const MaskedText& tokenPin, Enter enter,
             Forget forget) {
    const Context context = acquire(container.c_str());
    const CngKey key(container);
    ASSERT_EQ(key.status(), ERROR_SUCCESS);
    expectNone("before it was entered", findCopies(tokenPin));
    enter(context, key, tokenPin);
    EXPECT_EQ(signSilently(key), ERROR_SUCCESS);
    const std::vector<std::string> held = findCopies(tokenPin);
    EXPECT_FALSE(held.empty()) << "the search finds nothing";
    forget(token, key);
    EXPECT_NE(signSilently(key), ERROR_SUCCESS);
    expectNone("after it was forgotten", findCopies(tokenPin));
}

// A key value that comes wrapped under a key of the token, and lives in the handle. CryptoAPI takes the least
// significant byte first.
void keepSessionKey(const Context& context, const std::string&) {
    Bytes blob = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, 0, 0x10, 0x66, 0, 0, 0, 0xA4, 0, 0};  // AES-256 under RSA
    const Bytes wrapped = read("wrapped");
    blob.insert(blob.end(), wrapped.rbegin(), wrapped.rend());
    const Key exchange = userKey(context, AT_KEYEXCHANGE);
    Key key;
    ASSERT_TRUE(CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), exchange, 0, key.put()));
    Bytes data(64, 'x');
    DWORD size = 16;
    EXPECT_TRUE(CryptEncrypt(key, 0, TRUE, 0, data.data(), &size, 64));
    EXPECT_TRUE(CryptDecrypt(key, 0, TRUE, 0, data.data(), &size));
    EXPECT_FALSE(findCopies(aesValue).empty()) << "the search finds nothing";
    key.reset();
    expectNone("after CryptDestroyKey", findCopies(aesValue));
}

void keepUnwrappedKey(const Context&, const std::string& container) {
    const CngKey exchange(container);
    Bytes wrapped = read("wrapped");
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(cng().ImportKey(exchange.provider(), exchange.key(), NCRYPT_OPAQUETRANSPORT_BLOB, nullptr, &key,
                              wrapped.data(), static_cast<DWORD>(wrapped.size()), 0),
              ERROR_SUCCESS);
    EXPECT_FALSE(findCopies(aesValue).empty()) << "the search finds nothing";
    EXPECT_EQ(cng().FreeKey(exchange.provider(), key), ERROR_SUCCESS);
    expectNone("after KSPFreeKey", findCopies(aesValue));
}

// A key value given in clear: it goes to the token, and no copy of it to anywhere else.
void givePlainKey(const Context& context, const std::string&) {
    const CngKey any("");
    aesValue.reveal([&](char* value) {
        struct {
            BLOBHEADER header = {PLAINTEXTKEYBLOB, CUR_BLOB_VERSION, 0, CALG_AES_256};
            DWORD length = 32;
            BYTE value[32];
        } plain;
        struct {
            BCRYPT_KEY_DATA_BLOB_HEADER header = {BCRYPT_KEY_DATA_BLOB_MAGIC, BCRYPT_KEY_DATA_BLOB_VERSION1, 32};
            BYTE value[32];
        } data;
        std::memcpy(plain.value, value, 32);
        std::memcpy(data.value, value, 32);
        Key key;
        EXPECT_TRUE(CryptImportKey(context, reinterpret_cast<const BYTE*>(&plain), sizeof plain, 0, 0, key.put()));
        NCRYPT_KEY_HANDLE imported = 0;
        EXPECT_EQ(cng().ImportKey(any.provider(), 0, BCRYPT_KEY_DATA_BLOB, nullptr, &imported,
                                  reinterpret_cast<PBYTE>(&data), sizeof data, 0),
                  ERROR_SUCCESS);
        EXPECT_EQ(cng().FreeKey(any.provider(), imported), ERROR_SUCCESS);
        SecureZeroMemory(&plain, sizeof plain);
        SecureZeroMemory(&data, sizeof data);
        return 0;
    });
    expectNone("after both handles were destroyed", findCopies(aesValue));
}

const MaskedText& pinFor(const std::string& way) {
    return way.find("short") != std::string::npos ? shortPin : longPin;
}

class Secrets : public Tokens, public ::testing::WithParamInterface<std::string> {
  protected:
    // A key on the token, and an AES key wrapped under it.
    void makeKey(ALG_ID algorithm) {
        DialogRobot robot;
        robot.enters(pin);
        const Context context = acquire();
        ASSERT_TRUE(generate(context, algorithm));
        write("public.der", publicKey(context));
        char name[64] = {};
        DWORD size = sizeof name;
        EXPECT_TRUE(CryptGetProvParam(context, PP_CONTAINER, reinterpret_cast<BYTE*>(name), &size, 0));
        container_ = name;
        robot.finish();
        write("value", aesValue.reveal([](char* value) { return bytesOf(value); }));
        ASSERT_EQ(openssl("pkeyutl -encrypt -pubin -keyform DER -inkey public.der -in value -out wrapped").exitCode, 0);
    }
    const std::string& container() const { return container_; }

  private:
    std::string container_;
};

TEST_P(Secrets, LeaveNoCopy) {
    makeKey(GetParam().ends_with("-key") ? CALG_RSA_KEYX : CALG_RSA_SIGN);
    const MaskedText& newPin = pinFor(GetParam());
    change("change-pin --pin " + std::string(pin) + " --new-pin " +
               newPin.reveal([](char* text) { return std::string(text); }),
           token());
    EXPECT_EQ(Role("secrets", GetParam() + ':' + token() + ':' + container()).wait(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ways, Secrets,
                         ::testing::Values("parameter-short-unplugged", "property-long-unplugged",
                                           "dialog-long-unplugged", "parameter-long-expired", "dialog-short-expired",
                                           "session-key", "unwrapped-key", "plain-key"));

constexpr struct {
    std::string_view way;
    Enter enter;
} entering[] = {{"parameter", enterByParameter}, {"property", enterByProperty}, {"dialog", enterByDialog}};

constexpr struct {
    std::string_view way;
    void (*keep)(const Context&, const std::string&);
} keeping[] = {{"session-key", keepSessionKey}, {"unwrapped-key", keepUnwrappedKey}, {"plain-key", givePlainKey}};

}  // namespace

// `how` is "WAY:TOKEN:CONTAINER".
int keepSecrets(const std::string& how) {
    const std::size_t first = how.find(':'), second = how.find(':', first + 1);
    const std::string way = how.substr(0, first), token = how.substr(first + 1, second - first - 1);
    const std::string container = how.substr(second + 1);
    for (const auto& row : entering) {
        if (way.starts_with(row.way)) {
            keepPin(token, container, pinFor(way), row.enter,
                    way.ends_with("unplugged") ? forgetByUnplugging : forgetByExpiry);
        }
    }
    for (const auto& row : keeping) {
        if (way == row.way) {
            const Context context = acquire(container.c_str());
            EXPECT_TRUE(handOver(context, longPin));
            row.keep(context, container);
        }
    }
    return ::testing::Test::HasFailure() ? 1 : 0;
}

}  // namespace soak
