// No PIN and no AES key stays in the process when the provider has no more use for it.
#include <cstring>

#include "e2e_ksp/cng.h"
#include "soak/memory_search.h"

namespace soak {
namespace {

using namespace e2e;

// Short texts live inside their string object, long ones on the heap.
constexpr MaskedText shortPin("Kq7#Vd2pXw"), longPin("mW4;tGz9eR1(jS6$aQ0-nB8:uF3=cY5");
constexpr MaskedText aesValue("z8Rf!u3LbT0yHn5CxM7_dJ2%oP9@wE4h");
constexpr int editOfPin = 1001;

void expectNone(const char* when, const MaskedText& secret) {
    for (const std::string& copy : findCopies(secret)) {
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

bool signsSilently(const CngObject& key) {
    return !sign(key, Bytes(32), NCRYPT_SILENT_FLAG | BCRYPT_PAD_PKCS1).empty();
}

// Each ends with the PIN in the provider's keeping.
void enterByParameter(const Context& context, const CngObject&, const MaskedText& tokenPin) {
    EXPECT_TRUE(tokenPin.reveal([&](char* text) { return givePin(context, text); }));
}
void enterByProperty(const Context&, const CngObject& provider, const MaskedText& tokenPin) {
    EXPECT_EQ(tokenPin.reveal([&](char* text) {
        return NCryptSetProperty(provider, NCRYPT_PIN_PROPERTY, reinterpret_cast<PBYTE>(text),
                                 static_cast<DWORD>(tokenPin.size() + 1), 0);
    }),
              ERROR_SUCCESS);
}
void enterByDialog(const Context& context, const CngObject&, const MaskedText& tokenPin) {
    DialogRobot robot;
    robot.enters("wrong PIN").does([&](const PinDialog& dialog) { typeInto(dialog, tokenPin); });
    EXPECT_FALSE(sign(digest(context, CALG_SHA_256, bytesOf("asked"))).empty());
}

using Enter = void (*)(const Context&, const CngObject& provider, const MaskedText&);

void keepPin(const std::string& token, const std::string& container, const MaskedText& tokenPin, Enter enter,
             bool isUnplugged) {
    const Context context = acquire(container);
    const CngObject provider = openProvider(), key = openKey(provider, container);
    ASSERT_EQ(status, ERROR_SUCCESS);
    expectNone("before it was entered", tokenPin);
    enter(context, provider, tokenPin);
    EXPECT_TRUE(signsSilently(key));
    EXPECT_FALSE(findCopies(tokenPin).empty()) << "the search finds nothing";
    EXPECT_EQ(talvik((isUnplugged ? "token detach " : "token sso expire ") + token), 0);
    Sleep(isUnplugged ? 2500 : 0);  // two polls of the monitor
    EXPECT_FALSE(signsSilently(key));
    EXPECT_TRUE(isUnplugged || status == NTE_SILENT_CONTEXT) << status;
    expectNone("after it was forgotten", tokenPin);
}

// A key value that comes wrapped under a key of the token, and lives in the handle. CryptoAPI takes the least
// significant byte first.
void keepSessionKey(const Context& context, const CngObject&) {
    const Key exchange = userKey(context, AT_KEYEXCHANGE);
    Key key = import(context, keyBlob(SIMPLEBLOB, CALG_AES_256, reversed(read("wrapped"))), exchange);
    ASSERT_TRUE(key);
    EXPECT_EQ(decrypt(key, encrypt(key, Bytes(16, 'x'), 64)), Bytes(16, 'x'));
    EXPECT_FALSE(findCopies(aesValue).empty()) << "the search finds nothing";
    key.reset();
    expectNone("after CryptDestroyKey", aesValue);
}

void keepUnwrappedKey(const Context&, const CngObject& exchange) {
    CngObject key = importKey(openProvider(), NCRYPT_OPAQUETRANSPORT_BLOB, read("wrapped"), exchange);
    EXPECT_FALSE(findCopies(aesValue).empty()) << "the search finds nothing";
    key.reset();
    expectNone("after NCryptFreeObject", aesValue);
}

// A key value given in clear: it goes to the token, and no copy of it to anywhere else.
void givePlainKey(const Context& context, const CngObject&) {
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
        CngObject imported;
        EXPECT_TRUE(CryptImportKey(context, reinterpret_cast<const BYTE*>(&plain), sizeof plain, 0, 0, key.put()));
        EXPECT_EQ(NCryptImportKey(openProvider(), 0, BCRYPT_KEY_DATA_BLOB, nullptr, imported.put(),
                                  reinterpret_cast<PBYTE>(&data), sizeof data, 0),
                  ERROR_SUCCESS);
        SecureZeroMemory(&plain, sizeof plain);
        SecureZeroMemory(&data, sizeof data);
        return 0;
    });
    expectNone("after both handles were destroyed", aesValue);
}

struct Way {
    const char* name;
    Enter enter;  // null for the ways of a key
    const MaskedText& tokenPin;
    bool isUnplugged;
    void (*keep)(const Context&, const CngObject& exchange);
};
constexpr Way ways[] = {
    {"parameter-short-unplugged", enterByParameter, shortPin, true, nullptr},
    {"property-long-unplugged", enterByProperty, longPin, true, nullptr},
    {"dialog-long-unplugged", enterByDialog, longPin, true, nullptr},
    {"parameter-long-expired", enterByParameter, longPin, false, nullptr},
    {"dialog-short-expired", enterByDialog, shortPin, false, nullptr},
    {"session-key", nullptr, longPin, false, keepSessionKey},
    {"unwrapped-key", nullptr, longPin, false, keepUnwrappedKey},
    {"plain-key", nullptr, longPin, false, givePlainKey},
};

class Secrets : public Tokens, public ::testing::WithParamInterface<Way> {};

// In a process that has never seen the secret in clear. `how` is "WAY:TOKEN:CONTAINER".
const PlayedRole keeping("secrets", [](const std::string& how) {
    const std::size_t first = how.find(':'), second = how.find(':', first + 1);
    const std::string token = how.substr(first + 1, second - first - 1), container = how.substr(second + 1);
    const Way& way = *std::ranges::find(ways, how.substr(0, first), &Way::name);
    if (way.enter != nullptr) {
        keepPin(token, container, way.tokenPin, way.enter, way.isUnplugged);
    } else {
        const Context context = acquire(container);
        enterByParameter(context, {}, way.tokenPin);
        way.keep(context, openKey(openProvider(), container));
    }
    return 0;
});

TEST_P(Secrets, LeaveNoCopy) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    ASSERT_TRUE(generate(context, GetParam().keep != nullptr ? CALG_RSA_KEYX : CALG_RSA_SIGN));
    write("public.der", publicKey(context, GetParam().keep != nullptr ? AT_KEYEXCHANGE : AT_SIGNATURE));
    write("value", aesValue.reveal([](char* value) { return bytesOf(value); }));
    run("pkeyutl -encrypt -pubin -keyform DER -inkey public.der -in value -out wrapped");
    change("change-pin --pin " + std::string(pin) + " --new-pin " +
               GetParam().tokenPin.reveal([](char* text) { return std::string(text); }),
           token());
    EXPECT_EQ(Role("secrets", std::string(GetParam().name) + ':' + token() + ':' + containerOf(context)).wait(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ways, Secrets, ::testing::ValuesIn(ways), [](const auto& test) {
    std::string name = test.param.name;
    std::ranges::replace(name, '-', '_');
    return name;
});

}  // namespace
}  // namespace soak
