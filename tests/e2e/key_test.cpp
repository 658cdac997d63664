// Keys and their certificates.
#include <algorithm>

#include "e2e/surroundings.h"
#include "support/dialog_robot.h"

namespace e2e {
namespace {

class Keys : public Tokens {};

TEST_F(Keys, GeneratedWithEachAlgorithmAndSize) {
    struct Case {
        ALG_ID algorithm;
        DWORD bits;
        DWORD recordedBits;
        DWORD permissions;
        DWORD keySpec;
    };
    constexpr Case cases[] = {{AT_SIGNATURE, 1024, 1024, 0, AT_SIGNATURE},
                              {AT_SIGNATURE, 4096, 4096, 0, AT_SIGNATURE},
                              {CALG_RSA_SIGN, 0, 2048, 0, AT_SIGNATURE},
                              {CALG_RSA_SIGN, 3072, 3072, 0, AT_SIGNATURE},
                              {CALG_RSA_KEYX, 0, 2048, CRYPT_DECRYPT, AT_KEYEXCHANGE},
                              {AT_KEYEXCHANGE, 2048, 2048, CRYPT_DECRYPT, AT_KEYEXCHANGE}};
    DialogRobot robot;
    robot.enters(pin);
    for (const Case& test : cases) {
        const Context context = acquire();
        const Key key = generate(context, test.algorithm, test.bits);
        ASSERT_TRUE(key) << test.algorithm << ' ' << std::hex << GetLastError();
        EXPECT_EQ(keyParameter(key, KP_ALGID), test.algorithm);
        EXPECT_EQ(keyParameter(key, KP_KEYLEN), test.recordedBits);
        EXPECT_EQ(keyParameter(key, KP_PERMISSIONS), test.permissions);
        // The token makes RSA-2048 whatever size was asked for, and says so when the key is looked up.
        const Key found = userKey(context, test.keySpec);
        ASSERT_TRUE(found);
        EXPECT_EQ(keyParameter(found, KP_KEYLEN), 2048u);
    }
    EXPECT_EQ(robot.finish(), std::vector<std::string>{"PIN"});
}

TEST_F(Keys, RefusedBeforeAnyPinIsAskedFor) {
    const Context context = acquire();
    EXPECT_FALSE(generate(context, AT_SIGNATURE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_LEN));
    EXPECT_FALSE(generate(context, CALG_AES_128));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
    EXPECT_FALSE(userKey(context));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NO_KEY));
}

TEST_F(Keys, CertificateIsStoredAndReadBack) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context);
    ASSERT_TRUE(key);
    DWORD size = 0;
    EXPECT_FALSE(CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_NOT_FOUND));

    write("public.der", publicKey(context));
    ASSERT_EQ(openssl("req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj /CN=CA -days 3").exitCode, 0);
    ASSERT_EQ(openssl("req -new -newkey rsa:2048 -nodes -keyout other.key -out other.csr -subj /CN=Signer").exitCode,
              0);
    const OpensslResult issued = openssl(
        "x509 -req -in other.csr -CA ca.pem -CAkey ca.key -set_serial 7 -days 2 "
        "-force_pubkey public.der -keyform DER -outform DER -out certificate.der");
    ASSERT_EQ(issued.exitCode, 0) << issued.output;
    const Bytes certificate = read("certificate.der");
    ASSERT_TRUE(CryptSetKeyParam(key, KP_CERTIFICATE, certificate.data(), 0)) << std::hex << GetLastError();

    const Context later = acquire();
    const Key found = userKey(later);
    ASSERT_TRUE(CryptGetKeyParam(found, KP_CERTIFICATE, nullptr, &size, 0));
    EXPECT_EQ(size, certificate.size());
    Bytes stored(size + 10);
    size -= 1;
    EXPECT_FALSE(CryptGetKeyParam(found, KP_CERTIFICATE, stored.data(), &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    size = static_cast<DWORD>(stored.size());
    ASSERT_TRUE(CryptGetKeyParam(found, KP_CERTIFICATE, stored.data(), &size, 0));
    stored.resize(size);
    EXPECT_EQ(stored, certificate);
}

TEST_F(Keys, WhatOpensslEncryptedIsDecryptedOnTheToken) {
    DialogRobot robot;
    robot.enters(pin);
    const Context context = acquire();
    const Key key = generate(context, CALG_RSA_KEYX);
    ASSERT_TRUE(key);
    BYTE blob[1024];
    DWORD size = sizeof blob;
    ASSERT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob, &size));
    BYTE der[1024];
    DWORD derSize = sizeof der;
    ASSERT_TRUE(CryptEncodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, blob, der, &derSize));
    write("rsa.der", Bytes(der, der + derSize));
    write("secret", bytesOf("for the token alone"));
    ASSERT_EQ(openssl("rsa -RSAPublicKey_in -inform DER -in rsa.der -pubout -out public.pem").exitCode, 0);

    for (const auto& [padding, flags] : {std::pair{"pkcs1", 0ul}, std::pair{"oaep", DWORD{CRYPT_OAEP}}}) {
        const OpensslResult encrypted = openssl(std::string("pkeyutl -encrypt -pubin -inkey public.pem -in secret -out "
                                                            "encrypted -pkeyopt rsa_padding_mode:") +
                                                padding);
        ASSERT_EQ(encrypted.exitCode, 0) << encrypted.output;
        Bytes data = read("encrypted");
        std::reverse(data.begin(), data.end());
        auto length = static_cast<DWORD>(data.size());
        ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, flags, data.data(), &length)) << padding;
        data.resize(length);
        EXPECT_EQ(data, bytesOf("for the token alone")) << padding;
    }
}

}  // namespace
}  // namespace e2e
