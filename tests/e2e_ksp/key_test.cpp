// Keys from creation to deletion, their properties and blobs.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

class CngKeys : public Tokens {};

TEST_F(CngKeys, LiveFromCreationToDeletion) {
    DialogRobot robot;
    robot.enters(pin);
    const CngObject provider = openProvider();
    EXPECT_EQ(nameOf(provider), providerName);
    EXPECT_EQ(enumerateKeys(provider), Seen());
    const CngObject rsa = createKey(provider, L"RSA", 0, AT_KEYEXCHANGE);
    CngObject curve = createKey(provider, L"ECDSA_P384");
    const std::string rsaEntry = nameOf(rsa) + " RSA 1";
    const std::string curveName = nameOf(curve, NCRYPT_UNIQUE_NAME_PROPERTY);
    EXPECT_EQ(enumerateKeys(provider), Seen({rsaEntry, curveName + " ECDSA_P384 2"}));
    EXPECT_EQ(status, NTE_NO_MORE_ITEMS);

    const CngObject opened = openKey(openProvider(), nameOf(rsa));
    EXPECT_EQ(exported(opened, BCRYPT_RSAPUBLIC_BLOB), exported(rsa, BCRYPT_RSAPUBLIC_BLOB));
    EXPECT_EQ(property(opened, NCRYPT_LENGTH_PROPERTY), Bytes({0, 8, 0, 0}));
    EXPECT_EQ(nameOf(curve, NCRYPT_ALGORITHM_GROUP_PROPERTY), "ECDSA");

    EXPECT_EQ(NCryptDeleteKey(curve, 0), ERROR_SUCCESS);
    *curve.put() = 0;
    EXPECT_EQ(enumerateKeys(provider), Seen({rsaEntry}));
    openKey(provider, curveName);
    EXPECT_EQ(status, NTE_NO_KEY);
    EXPECT_EQ(robot.finish(), Seen{"PIN"});
}

}  // namespace
}  // namespace e2e
