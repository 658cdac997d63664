// Session keys that openssl encrypts to the token, AES keys that the token keeps, and data under both.
#include "e2e/objects.h"

namespace e2e {
namespace {

class SessionKeys : public Tokens {
  protected:
    void SetUp() override {
        Tokens::SetUp();
        context_ = acquire();
        presentPin(context_);
        exchangeKey_ = generate(context_, CALG_RSA_KEYX);
        ASSERT_TRUE(exchangeKey_);
        writePublicKey(exported(exchangeKey_));
    }
    void TearDown() override {
        exchangeKey_.reset();
        context_.reset();
        Tokens::TearDown();
    }
    const Context& context() const { return context_; }

    // As openssl gives it, most significant byte first.
    Bytes encrypted(const Bytes& value) const {
        write("value", value);
        run("pkeyutl -encrypt -pubin -inkey public.pem -in value -out encrypted");
        return read("encrypted");
    }
    Key importSession(ALG_ID algorithm, const Bytes& payload) const {
        return import(context_, keyBlob(SIMPLEBLOB, algorithm, payload), &exchangeKey_);
    }
    Bytes wrapped(const Bytes& value, const Bytes& kek) const {
        write("value", value);
        run("enc -aes-" + std::to_string(kek.size() * 8) + "-ecb -K " + hex(kek) + " -in value -out wrapped");
        return read("wrapped");
    }
    bool unwraps(const Bytes& payload) const {
        return import(context_, keyBlob(SYMMETRICWRAPKEYBLOB, CALG_AES_256, payload));
    }

  private:
    Context context_;
    Key exchangeKey_;
};

// The vector is one for the whole process, and it cannot be taken away again: what goes without one comes first, and no
// other test sets it. A handle takes a vector when it is for AES-256 (16 bytes) or triple DES (8 bytes, which no AES
// operation accepts); an AES-128 key works with the vector that another handle was given.
TEST_F(SessionKeys, EncryptWhatOpensslEncryptsWithoutAndWithAVector) {
    struct Row {
        const char* name;
        ALG_ID algorithm;
        std::size_t length;
        bool isReversed;
    };
    constexpr Row rows[] = {{"aes-128", CALG_AES_128, 16, true},
                            {"aes-128", CALG_AES_128, 16, false},
                            {"aes-256", CALG_AES_256, 32, true},
                            {"aes-192", CALG_3DES, 24, true}};
    std::vector<Key> keys;
    for (const Row& row : rows) {
        const Bytes payload = encrypted(pattern(row.length));
        keys.push_back(importSession(row.algorithm, row.isReversed ? reversed(payload) : payload));
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
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_LEN));
            EXPECT_TRUE(decrypt(keys[i], pattern(15)).empty());
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
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

// A key on the token shows its value only in what it unwraps: each key here comes wrapped in the one before.
TEST_F(SessionKeys, AesKeysStayOnTheTokenAndUnwrapOthers) {
    const Bytes first = pattern(16), second = pattern(32), third = reversed(pattern(32)),
                fourth = reversed(pattern(16));
    EXPECT_FALSE(unwraps(wrapped(third, second))) << "no key yet";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    ASSERT_TRUE(import(context(), keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, first)));
    const Key key = import(context(), keyBlob(PLAINTEXTKEYBLOB, CALG_AES_256, second));
    ASSERT_TRUE(key);
    EXPECT_EQ(keyParameter(key, KP_ALGID), DWORD{CALG_AES_256});
    EXPECT_TRUE(unwraps(wrapped(third, second)));
    EXPECT_FALSE(unwraps(wrapped(third, fourth)));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_KEY));
    for (const std::size_t length : {1u, 15u, 17u, 24u, 31u, 33u, 128u, 129u}) {
        EXPECT_FALSE(import(context(), keyBlob(PLAINTEXTKEYBLOB, CALG_AES_128, pattern(length))));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE)) << length;
    }
    // Another process, which has nothing but the token.
    wrapped(fourth, third);
    EXPECT_EQ(Role("unwrap").wait(), 0u);
}

}  // namespace
}  // namespace e2e
