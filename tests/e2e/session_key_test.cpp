// Session keys that openssl encrypts to the token, AES keys that the token keeps, and data under both.
#include "e2e/surroundings.h"

namespace e2e {
namespace {

class SessionKeys : public Tokens {
  protected:
    SessionKeys() {
        givePin(context);
        exchangeKey = generate(context, CALG_RSA_KEYX);
        write("public.der", publicKey(context, AT_KEYEXCHANGE));
    }

    // As openssl gives it, most significant byte first.
    static Bytes encrypted(const Bytes& value) {
        write("value", value);
        run("pkeyutl -encrypt -pubin -keyform DER -inkey public.der -in value -out encrypted");
        return read("encrypted");
    }
    static Bytes wrapped(const Bytes& value, const Bytes& kek) {
        write("value", value);
        run("enc -aes-" + std::to_string(kek.size() * 8) + "-ecb -K " + hex(kek) + " -in value -out wrapped");
        return read("wrapped");
    }
    Key plain(ALG_ID algorithm, const Bytes& value) const {
        return import(context, keyBlob(PLAINTEXTKEYBLOB, algorithm, value));
    }
    std::int64_t unwrapping(const Bytes& payload) const {
        return errorOf(import(context, keyBlob(SYMMETRICWRAPKEYBLOB, CALG_AES_256, payload)) != 0);
    }

    const Context context = acquire();
    Key exchangeKey;
};

// The vector is one for the whole process, and it cannot be taken away again: what goes without one comes first, and no
// other test sets it. A handle takes a vector when it is for AES-256 (16 bytes) or triple DES (8 bytes, which no AES
// operation accepts); an AES-128 key works with the vector that another handle was given.
TEST_F(SessionKeys, EncryptWhatOpensslEncryptsWithoutAndWithAVector) {
    constexpr struct {
        const char* name;
        ALG_ID algorithm;
        std::size_t length;
        bool isReversed;
    } rows[] = {{"aes-128", CALG_AES_128, 16, true},
                {"aes-128", CALG_AES_128, 16, false},
                {"aes-256", CALG_AES_256, 32, true},
                {"aes-192", CALG_3DES, 24, true}};
    std::vector<Key> keys;
    for (const auto& row : rows) {
        const Bytes payload = encrypted(pattern(row.length));
        keys.push_back(import(context, keyBlob(SIMPLEBLOB, row.algorithm, row.isReversed ? reversed(payload) : payload),
                              exchangeKey));
        ASSERT_TRUE(keys.back()) << std::hex << GetLastError();
    }
    const auto agreesWithOpenssl = [&](const std::string& chaining, const std::string& vector) {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            for (const std::size_t size : {1u, 15u, 16u, 17u, 4096u, i == 2 ? 64u << 20 : 100u}) {
                SCOPED_TRACE(std::string(rows[i].name) + chaining + ' ' + std::to_string(size));
                const Bytes plaintext = pattern(size);
                write("plain", plaintext);
                run(std::string("enc -") + rows[i].name + chaining + " -K " + hex(pattern(rows[i].length)) + vector +
                    " -in plain -out cipher");
                const std::size_t needed = size / 16 * 16 + 16;
                const Bytes ciphertext = encrypt(keys[i], plaintext, needed);
                ASSERT_TRUE(ciphertext == read("cipher"));
                ASSERT_TRUE(decrypt(keys[i], ciphertext) == plaintext);
                EXPECT_TRUE(encrypt(keys[i], plaintext, needed - 1).empty());
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
            }
            EXPECT_TRUE(encrypt(keys[i], {}, 16).empty());
            EXPECT_TRUE(decrypt(keys[i], pattern(15)).empty());
        }
    };
    const Bytes vector = pattern(16);
    EXPECT_TRUE(CryptSetKeyParam(keys[0], KP_IV, vector.data(), 0));  // accepted, and without effect
    agreesWithOpenssl("-ecb", "");
    ASSERT_TRUE(CryptSetKeyParam(keys[3], KP_IV, vector.data(), 0));
    EXPECT_TRUE(encrypt(keys[2], pattern(16), 32).empty());
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
    ASSERT_TRUE(CryptSetKeyParam(keys[2], KP_IV, vector.data(), 0));
    agreesWithOpenssl("-cbc", " -iv " + hex(vector));
}

// A key on the token shows its value only in what it unwraps.
TEST_F(SessionKeys, AesKeysStayOnTheTokenAndUnwrapOthers) {
    const Bytes first = pattern(16), second = pattern(32), third = reversed(second), fourth = reversed(first);
    EXPECT_EQ(unwrapping(wrapped(third, second)), NTE_BAD_KEY) << "no key yet";
    ASSERT_TRUE(plain(CALG_AES_128, first));
    EXPECT_EQ(keyParameter(plain(CALG_AES_256, second), KP_ALGID), DWORD{CALG_AES_256});
    EXPECT_EQ(unwrapping(wrapped(third, second)), 0);
    EXPECT_EQ(unwrapping(wrapped(third, fourth)), NTE_BAD_KEY);
}

}  // namespace
}  // namespace e2e
