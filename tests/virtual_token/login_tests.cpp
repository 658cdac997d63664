// PINs, attempts, single sign-on, the clock, plugging in and out: as other processes change them.
#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

const PlayedRole guessing("wrong-pin", [](const std::string&) { return login("0000"); });

const PlayedRole signing("sign-without-pin", [](const std::string&) {
    return sign({0, talvik_getKeyPairList(device, nullptr).front()}, pattern(32), false, "").status;
});

class LoginTest : public VirtualTokenTest {
  protected:
    int remaining() {
        int left = -1;
        login("", &left);
        return left;
    }
    int signStatus(const char* withPin) { return sign(key, pattern(32), false, withPin).status; }

    const Key key = generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN);
};

TEST_F(LoginTest, WrongPinsLockTheToken) {
    int left = -1;
    EXPECT_EQ(login("123", &left), InvalidArgument);  // no PIN at all: no attempt
    EXPECT_EQ(login("", &left), InvalidArgument);
    EXPECT_EQ(login(std::string(300, '1').c_str(), &left), InvalidArgument);
    EXPECT_EQ(left, 3);
    EXPECT_EQ(login("9999", &left), WrongPin);
    EXPECT_EQ(left, 2);
    EXPECT_EQ(signStatus("9998"), WrongPin);  // costs as much as a login
    EXPECT_EQ(remaining(), 1);
    EXPECT_EQ(login(pin, &left), 0);
    EXPECT_EQ(left, 3);
    for (const int expected : {2, 1, 0}) {
        EXPECT_EQ(login("9999", &left), expected == 0 ? PinLocked : WrongPin);
        EXPECT_EQ(left, expected);
    }
    EXPECT_EQ(login(pin, &left), PinLocked);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(signStatus(pin), PinLocked);  // although this process knows the PIN to be right
    EXPECT_EQ(talvik("token unblock T1 --admin-pin 87654321 --new-pin 5678"), 1);
    EXPECT_EQ(talvik("token unblock T1 --admin-pin 12345678 --new-pin 5678"), 0);
    EXPECT_EQ(login(pin, &left), WrongPin);
    EXPECT_EQ(signStatus("5678"), 0);  // the key has outlived both
    EXPECT_EQ(remaining(), 3);
}

TEST_F(LoginTest, AttemptsAreCountedAcrossProcesses) {
    ASSERT_EQ(login(pin), 0);
    EXPECT_EQ(Role("wrong-pin").wait(), static_cast<DWORD>(WrongPin));
    EXPECT_EQ(remaining(), 2);
    EXPECT_EQ(signStatus(pin), 0);  // a right PIN gives them back, also one known already
    EXPECT_EQ(remaining(), 3);
    Role guessers[] = {Role("wrong-pin"), Role("wrong-pin"), Role("wrong-pin"), Role("wrong-pin"), Role("wrong-pin")};
    int wrong = 0, locked = 0;
    for (Role& guesser : guessers) {
        const DWORD status = guesser.wait();
        wrong += status == static_cast<DWORD>(WrongPin);
        locked += status == static_cast<DWORD>(PinLocked);
    }
    EXPECT_EQ(wrong, 2);
    EXPECT_EQ(locked, 3);
}

// A guesser that is killed has paid for its guess: the attempt is on the disk before the PIN is tested.
TEST_F(LoginTest, KillingAGuesserWinsNothing) {
    for (int i = 0; i < 8 && remaining() > 0; ++i) {
        Role guesser("wrong-pin");
        const int before = remaining();
        while (remaining() == before) {
            SwitchToThread();
        }
        guesser.kill();
        EXPECT_EQ(remaining(), before - 1);
    }
    EXPECT_EQ(remaining(), 0);
}

TEST_F(LoginTest, APinThatCannotBeChargedForIsNotTested) {
    const auto inTheWay = scratch().path() / home() / "T1.json.new";  // so that no version can be written
    std::filesystem::create_directory(inTheWay);
    EXPECT_EQ(Role("wrong-pin").wait(), static_cast<DWORD>(StorageFailure));
    std::filesystem::remove(inTheWay);
    EXPECT_EQ(Role("wrong-pin").wait(), static_cast<DWORD>(WrongPin));
}

TEST_F(LoginTest, ChangingThePin) {
    EXPECT_EQ(talvik("token change-pin T1 --pin 9999 --new-pin 5678"), 1);
    EXPECT_EQ(talvik("token change-pin T1 --pin 1234 --new-pin 123"), 2);
    EXPECT_EQ(talvik("token change-pin T1 --pin 1234 --new-pin 5678"), 0);
    EXPECT_EQ(signStatus(pin), WrongPin);
    EXPECT_EQ(signStatus("5678"), 0);
}

TEST_F(LoginTest, SingleSignOn) {
    const auto states = [] {
        const TokenInfo info = talvik_getTokenInfo(device, nullptr);
        return info.tokenId + " " + std::to_string(info.loginState) + " " + std::to_string(info.ssoState);
    };
    EXPECT_EQ(states(), "T1 0 0");
    EXPECT_EQ(signStatus(""), PinRequired);
    EXPECT_EQ(talvik("token sso on T1 --pin 9999"), 1);
    EXPECT_EQ(talvik("token sso on T1 --pin 1234"), 0);
    EXPECT_EQ(states(), "T1 1 1");
    EXPECT_EQ(signStatus(""), 0);
    EXPECT_EQ(Role("sign-without-pin").wait(), 0u);
    EXPECT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN, "").status, 0);

    ASSERT_EQ(talvik("token sso expire T1"), 0);
    EXPECT_EQ(states(), "T1 1 0");
    EXPECT_EQ(signStatus(""), TALVIK_STATUS_SIGN_ON_EXPIRED);
    EXPECT_EQ(signStatus(pin), TALVIK_STATUS_SIGN_ON_EXPIRED);  // the PIN is to be asked for again...
    EXPECT_EQ(decrypt(key, pattern(256), pin).status, TALVIK_STATUS_SIGN_ON_EXPIRED);
    EXPECT_EQ(login("9999"), WrongPin);
    EXPECT_EQ(signStatus(pin), TALVIK_STATUS_SIGN_ON_EXPIRED);
    EXPECT_EQ(login(pin), 0);
    EXPECT_EQ(signStatus(pin), 0);  // ...and a login with it makes the repeated call succeed
    EXPECT_EQ(states(), "T1 0 0");

    ASSERT_EQ(talvik("token sso on T1 --pin 1234"), 0);
    ASSERT_EQ(talvik("token sso off T1"), 0);
    EXPECT_EQ(signStatus(""), PinRequired);
    EXPECT_FALSE(std::filesystem::exists(scratch().path() / home() / "T1.session"));
}

TEST_F(LoginTest, ClockDisagreement) {
    ASSERT_EQ(talvik("token clock skew T1"), 0);
    int left = 0;
    EXPECT_EQ(login(pin, &left), TALVIK_STATUS_TIME_MISMATCH);
    EXPECT_EQ(left, 3);
    EXPECT_EQ(login("9999"), TALVIK_STATUS_TIME_MISMATCH);
    EXPECT_EQ(talvik("token sso on T1 --pin 1234"), 1);
    ASSERT_EQ(talvik("token clock ok T1"), 0);
    EXPECT_EQ(login(pin), 0);
}

TEST_F(LoginTest, ADetachedTokenForgetsTheLogin) {
    const TalvikSymmetricKey record = importAes(Bytes(16), 0);
    const Bytes wrapped = encryptAes(EncryptionType::Aes128Ecb, Bytes(16), pattern(16), {}).bytes;
    const auto unwrapping = [&] { return unwrap(record.identifier, wrapped).status; };
    EXPECT_EQ(unwrapping(), 0);
    ASSERT_EQ(talvik("token detach T1"), 0);
    EXPECT_TRUE(talvik_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_TRUE(talvik_getKeyPairList(device, nullptr).empty());
    EXPECT_EQ(talvik_getTokenInfo(device, nullptr).tokenId, "");
    EXPECT_EQ(talvik_initDevice(device, true, nullptr), DeviceDetached);
    EXPECT_EQ(login(pin), DeviceDetached);
    EXPECT_EQ(signStatus(pin), DeviceDetached);
    ASSERT_EQ(talvik("token attach T1"), 0);
    EXPECT_EQ(talvik_getKeyPairList(device, nullptr).size(), 1u);
    EXPECT_EQ(unwrapping(), PinRequired);
    EXPECT_EQ(signStatus(pin), 0);
    EXPECT_EQ(unwrapping(), 0);
}

}  // namespace
}  // namespace talvik_test
