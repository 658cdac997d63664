// Keys from creation to deletion, their properties and blobs.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

class CngKeys : public Tokens {};

// The names, in the token's order.
std::vector<std::wstring> enumerate(const CngObject& provider) {
    std::vector<std::wstring> names;
    void* state = nullptr;
    NCryptKeyName* name = nullptr;
    while ((status = NCryptEnumKeys(provider, nullptr, &name, &state, 0)) == ERROR_SUCCESS) {
        names.push_back(std::wstring(name->pszName) + L" " + name->pszAlgid + L" " +
                        std::to_wstring(name->dwLegacyKeySpec));
        EXPECT_EQ(NCryptFreeBuffer(name), ERROR_SUCCESS);
    }
    EXPECT_EQ(status, NTE_NO_MORE_ITEMS);
    EXPECT_EQ(NCryptFreeBuffer(state), ERROR_SUCCESS);
    return names;
}

TEST_F(CngKeys, LiveFromCreationToDeletion) {
    DialogRobot robot;
    robot.enters(pin);
    const CngObject provider = openProvider();
    EXPECT_EQ(text(property(provider, NCRYPT_NAME_PROPERTY)), L"Talvik Cryptographic Provider CSP");
    EXPECT_EQ(enumerate(provider), std::vector<std::wstring>());
    const CngObject rsa = createKey(provider, L"RSA", 0, AT_KEYEXCHANGE);
    CngObject curve = createKey(provider, L"ECDSA_P384");
    const std::wstring rsaName = text(property(rsa, NCRYPT_NAME_PROPERTY));
    const std::wstring curveName = text(property(curve, NCRYPT_UNIQUE_NAME_PROPERTY));
    const std::wstring rsaEntry = rsaName + L" RSA 1", curveEntry = curveName + L" ECDSA_P384 2";
    EXPECT_EQ(enumerate(provider), std::vector<std::wstring>({rsaEntry, curveEntry}));

    const CngObject opened = openKey(openProvider(), rsaName);
    EXPECT_EQ(exported(opened, BCRYPT_RSAPUBLIC_BLOB), exported(rsa, BCRYPT_RSAPUBLIC_BLOB));
    EXPECT_EQ(property(opened, NCRYPT_LENGTH_PROPERTY), Bytes({0, 8, 0, 0}));
    EXPECT_EQ(text(property(curve, NCRYPT_ALGORITHM_GROUP_PROPERTY)), L"ECDSA");

    EXPECT_EQ(NCryptDeleteKey(curve, 0), ERROR_SUCCESS);
    *curve.put() = 0;
    EXPECT_EQ(enumerate(provider), std::vector<std::wstring>({rsaEntry}));
    openKey(provider, curveName);
    EXPECT_EQ(status, NTE_NO_KEY);
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

TEST_F(CngKeys, CarryTheirCertificate) {
    const CngObject provider = openProvider();
    setPin(provider);
    const CngObject key = createKey(provider, L"RSA", 1024);
    write("public.der", publicKeyOf(key));
    EXPECT_EQ(property(key, NCRYPT_CERTIFICATE_PROPERTY), Bytes());
    EXPECT_EQ(status, NTE_NOT_FOUND);
    Bytes der = certificateForPublicKey("holder");
    ASSERT_EQ(NCryptSetProperty(key, NCRYPT_CERTIFICATE_PROPERTY, der.data(), static_cast<DWORD>(der.size()), 0),
              ERROR_SUCCESS);
    EXPECT_EQ(property(key, NCRYPT_CERTIFICATE_PROPERTY), der);
    EXPECT_EQ(property(openKey(openProvider(), text(property(key, NCRYPT_NAME_PROPERTY))), NCRYPT_CERTIFICATE_PROPERTY),
              der);
}

}  // namespace
}  // namespace e2e
