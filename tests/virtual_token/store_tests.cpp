// What a token keeps: over processes, next to other processes, through kills.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "virtual_token/fixture.h"

namespace talvik_test {

namespace {

const PlayedRole making("generate-five", [](const std::string&) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN).status, 0);
    }
    return 0;
});

TalvikCertificate certificateRecord(const Bytes& der) {
    TalvikCertificate record{};
    std::ranges::copy(der, record.der);
    record.derLength = static_cast<std::uint32_t>(der.size());
    return record;
}

TEST_F(VirtualTokenTest, GeneratedKeysDescribeThemselves) {
    const Key byDefault = generate(0, TALVIK_USAGE_EXCHANGE);
    ASSERT_EQ(byDefault.status, 0);
    EXPECT_EQ(byDefault.record.keyType, TALVIK_KEY_RSA_2048);
    EXPECT_EQ(byDefault.record.usage, TALVIK_USAGE_EXCHANGE);
    EXPECT_GT(byDefault.record.keyAliasLength, 0u);
    EXPECT_NE(byDefault.record.label[0], '\0');
    EXPECT_EQ(generate(8, 1).status, Unsupported);
    EXPECT_EQ(generate(TALVIK_KEY_RSA_1024, 4).status, InvalidArgument);
    EXPECT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_EXCHANGE).status, Unsupported);
    EXPECT_EQ(sign(byDefault, pattern(32)).status, UsageForbidden);
    const TalvikKeyPair listed = talvik_getKeyPairList(device, nullptr).front();
    EXPECT_EQ(std::memcmp(&listed, &byDefault.record, sizeof listed), 0);
}

TEST_F(VirtualTokenTest, ProcessesShareATokenAndItsKeysOutliveThem) {
    Role makers[] = {Role("generate-five"), Role("generate-five"), Role("generate-five")};
    for (Role& maker : makers) {
        EXPECT_EQ(maker.wait(), 0u);
    }
    const std::vector<TalvikKeyPair> keys = talvik_getKeyPairList(device, nullptr);
    std::set<std::string> ids;
    for (const TalvikKeyPair& record : keys) {
        ids.insert(hex(Bytes(record.keyId, record.keyId + 16)));
        EXPECT_EQ(sign({0, record}, pattern(32)).status, 0);
        EXPECT_EQ(sign({0, record}, pattern(16)).status, Unsupported) << "a digest of no known length";
    }
    ASSERT_EQ(ids.size(), 15u);
    ASSERT_EQ(talvik_deleteKeyPair(device, keys[2].keyId, pin, true, nullptr), 0);
    EXPECT_EQ(talvik_deleteKeyPair(device, keys[2].keyId, pin, true, nullptr), NoSuchObject);
    EXPECT_EQ(sign({0, keys[2]}, pattern(32)).status, NoSuchObject);
    EXPECT_EQ(talvik_getKeyPairList(device, nullptr).size(), 14u);
}

// Readers copy lists while a writer changes the token.
TEST_F(VirtualTokenTest, ListsStayWholeWhileTheTokenChanges) {
    std::atomic<bool> done{false};
    std::atomic<int> broken{0};
    std::thread reader([&] {
        while (!done) {
            const std::vector<TalvikKeyPair> copy = talvik_getKeyPairList(device, nullptr);
            broken += !std::ranges::all_of(copy, [](const TalvikKeyPair& key) { return key.modulusLength == 91; });
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(generate(TALVIK_KEY_EC_P256, TALVIK_USAGE_SIGN).status, 0);
    }
    done = true;
    reader.join();
    EXPECT_EQ(broken, 0);
    EXPECT_EQ(talvik_getKeyPairList(device, nullptr).size(), 20u);
}

TEST_F(VirtualTokenTest, NothingSecretIsReadable) {
    ASSERT_EQ(generate(TALVIK_KEY_RSA_2048, TALVIK_USAGE_SIGN).status, 0);
    EXPECT_EQ(importAes(pattern(32), 0).keyType, TALVIK_KEY_AES_256);
    const Bytes file = read(home() + "/T1.json");
    const std::string text(file.begin(), file.end());
    for (const char* secret : {"AAcOFRwjKjE4P0ZNVFtiaXB3foWMk5qhqK+2vcTL0tk=", "00070E151C232A31", "\"1234\""}) {
        EXPECT_EQ(text.find(secret), std::string::npos) << secret;
    }
    const auto json = nlohmann::json::parse(text);
    EXPECT_NE(json.at("userPin").at("salt"), json.at("adminPin").at("salt"));
}

// The token's file with what `change` makes of it.
template <class Change>
void rewrite(const std::string& name, Change change) {
    auto json = nlohmann::json::parse(read(name));
    change(json);
    write(name, bytesOf(json.dump()));
}

TEST_F(VirtualTokenTest, SecretsOpenOnlyAsTheObjectTheyWereSealedFor) {
    const Key keys[] = {generate(TALVIK_KEY_EC_P256, 1), generate(TALVIK_KEY_EC_P256, 1)};
    const TalvikSymmetricKey aes = importAes(pattern(16), 0), other = importAes(Bytes(16), 0);
    const Bytes wrapped = encryptAes(EncryptionType::Aes128Ecb, pattern(16), pattern(16), {}).bytes;
    EXPECT_EQ(unwrap(aes.identifier, wrapped).status, 0);
    rewrite(home() + "/T1.json", [](auto& json) {
        for (const char* list : {"keyPairs", "aesKeys"}) {
            std::swap(json.at(list).at(0).at("secret"), json.at(list).at(1).at("secret"));
        }
    });
    EXPECT_EQ(sign(keys[0], pattern(32)).status, BadData);
    EXPECT_EQ(unwrap(other.identifier, wrapped).status, BadData);
}

TEST_F(VirtualTokenTest, NumbersOfAFileAreInRange) {
    importAes(pattern(16), 0);
    generate(TALVIK_KEY_EC_P256, 1);
    const std::string file = home() + "/T1.json";
    const Bytes good = read(file);
    const std::pair<const char*, nlohmann::json> rows[] = {
        {"/userPin/attemptsAllowed", {-5, 0, 1.5, 101, 4294967299}},
        {"/userPin/attemptsLeft", {-1, 4, 1.5, 4294967299, 18446744073709551613u}},
        {"/adminPin/cost", {0, 1, 3, 2097152, 4294967298}},
        {"/keyPairs/0/storageFlag", {-1, 256}},
        {"/aesKeys/0/storageFlag", {-1, 256}},
        {"/aesKeys/0/type", {-1, 2, 9, 4294967304}},
        {"/aesKeys/0/usage", {-1, 4294967296}},
    };
    for (const auto& [where, values] : rows) {
        for (const auto& value : values) {
            rewrite(file, [&](auto& json) { json.at(nlohmann::json::json_pointer(where)) = value; });
            EXPECT_EQ(talvik_initDevice(device, true, nullptr), StorageFailure) << where << ' ' << value;
        }
        write(file, good);
        EXPECT_EQ(talvik_initDevice(device, true, nullptr), 0);
    }
}

TEST_F(VirtualTokenTest, AesKeySizesAndTypes) {
    const struct {
        int length;
        std::uint32_t type;
        int status;
        std::uint32_t stored;
    } rows[] = {{16, TALVIK_KEY_AES_128, 0, TALVIK_KEY_AES_128},
                {24, TALVIK_KEY_AES_192, 0, TALVIK_KEY_AES_192},
                {24, TALVIK_KEY_AES_256, 0, TALVIK_KEY_AES_192},
                {32, TALVIK_KEY_AES_256, 0, TALVIK_KEY_AES_256},
                {32, TALVIK_KEY_AES_128, BadKey, 0},
                {16, TALVIK_KEY_AES_256, BadKey, 0},
                {20, TALVIK_KEY_AES_128, BadKey, 0},
                {0, TALVIK_KEY_AES_128, BadKey, 0},
                {129, TALVIK_KEY_AES_128, InvalidArgument, 0},
                {-1, TALVIK_KEY_AES_128, InvalidArgument, 0}};
    for (const auto& row : rows) {
        TalvikSymmetricKey key = aesRecord({}, row.type);
        key.keyIdLength = row.length;
        EXPECT_EQ(talvik_importAesKey(device, pin, &key, nullptr), row.status) << row.length << " " << row.type;
        if (row.status == 0) {
            EXPECT_EQ(key.keyType, row.stored);
        }
    }
}

TEST_F(VirtualTokenTest, CertificatesPairWithTheirKeys) {
    const Key key = generate(TALVIK_KEY_RSA_1024, TALVIK_USAGE_BOTH);
    ASSERT_EQ(key.status, 0);
    run("req -x509 -newkey rsa:1024 -nodes -keyout other.pem -subj /C=DE/CN=Virtual -days 30 -outform DER -out other");
    const Bytes other = read("other");
    writeRsaKey(scratch(), "public", key.publicKey());
    const Bytes matching = certificateForPublicKey("Pair");

    TalvikCertificate byPublicKey = certificateRecord(matching), foreign = certificateRecord(other);
    ASSERT_EQ(talvik_importCertificate(device, pin, &byPublicKey, nullptr), 0);
    ASSERT_EQ(talvik_importCertificate(device, pin, &foreign, nullptr), 0);
    std::vector<TalvikCertificate> stored = talvik_getCertificateList(device, nullptr);
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(stored[1].keyAliasLength, 0u);
    EXPECT_STREQ(stored[1].label, "C=DE, CN=Virtual");

    TalvikCertificate renewal = certificateRecord(other);  // as the provider sends it: with the key's names
    std::ranges::copy(key.record.keyId, renewal.keyId);
    std::ranges::copy(key.record.keyAlias, renewal.keyAlias);
    renewal.keyAliasLength = key.record.keyAliasLength;
    ASSERT_EQ(talvik_importCertificate(device, pin, &renewal, nullptr), 0);
    stored = talvik_getCertificateList(device, nullptr);
    ASSERT_EQ(stored.size(), 1u);  // it has taken the first one's place, and its own from before it had a key
    EXPECT_EQ(std::memcmp(stored[0].keyId, key.record.keyId, 16), 0);
    EXPECT_EQ(std::memcmp(stored[0].keyAlias, key.record.keyAlias, key.record.keyAliasLength), 0);
    EXPECT_STREQ(stored[0].label, key.record.label);

    CertificateDetails details;
    ASSERT_EQ(talvik_getCertificateDetails(matching.data(), static_cast<int>(matching.size()), details, nullptr), 0);
    EXPECT_EQ(details.publicKey, key.publicKey());
    EXPECT_EQ(details.subject, "CN=Pair");

    TalvikCertificate garbage = certificateRecord(pattern(100)), unknownKey = certificateRecord(other);
    unknownKey.keyId[0] = 1;
    EXPECT_EQ(talvik_importCertificate(device, pin, &garbage, nullptr), BadCertificate);
    EXPECT_EQ(talvik_importCertificate(device, pin, &unknownKey, nullptr), NoSuchObject);
    for (std::size_t length = 0; length < other.size(); ++length) {
        EXPECT_EQ(talvik_getCertificateDetails(other.data(), static_cast<int>(length), details, nullptr),
                  BadCertificate);
    }
    ASSERT_EQ(talvik_importCertificate(device, pin, &byPublicKey, nullptr), 0);
    ASSERT_EQ(talvik_importCertificate(device, pin, &foreign, nullptr), 0);
    ASSERT_EQ(talvik_deleteKeyPair(device, key.id(), pin, true, nullptr), 0);
    EXPECT_EQ(talvik_getCertificateList(device, nullptr).size(), 1u);
}

TEST_F(VirtualTokenTest, OtherFilesInTheFolderDoNoHarm) {
    write(home() + "/broken.json", bytesOf("{\"format\": 1,"));
    write(home() + "/empty.json", {});
    write(home() + "/T2.json", read(home() + "/T1.json"));  // says that it is T1
    write(home() + "/notes.txt", bytesOf("mine"));
    ASSERT_EQ(talvik("token create --id A0 --pin 1234 --firmware 1.9.9"), 0);
    EXPECT_EQ(talvik_getConnectedDeviceList(false, nullptr), (std::vector<std::string>{"A0", "T1"}));
    EXPECT_EQ(talvik_getTokenInfo("A0", nullptr).firmwareVersion, "1.9.9");
    SetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", (scratch().path() / "nowhere").c_str());
    EXPECT_TRUE(talvik_getConnectedDeviceList(false, nullptr).empty());
}

class FolderTest : public VirtualTokenTest {
  protected:
    using Devices = std::vector<std::string>;

    void SetUp() override { ASSERT_EQ(talvik("token create --id A0 --pin 1234"), 0); }

    static Devices devices() { return talvik_getConnectedDeviceList(false, nullptr); }
    void rename(const char* from, const char* to) const { std::filesystem::rename(folder() / from, folder() / to); }

    // As if nothing had come or gone in it since.
    void dateFolder(std::chrono::seconds ago, const char* folderInIt = "") const {
        constexpr DWORD sharing = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        const HANDLE opened = CreateFileW((folder() / folderInIt).c_str(), FILE_WRITE_ATTRIBUTES, sharing, nullptr,
                                          OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        const auto time = static_cast<std::uint64_t>(now_ - ago.count() * 10'000'000);
        const FILETIME date{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
        EXPECT_TRUE(SetFileTime(opened, nullptr, nullptr, &date));
        CloseHandle(opened);
    }

    // Tells what is listed next, of a folder that this process has read since it was written to.
    template <class Change>
    Devices listAfter(const Change& change) const {
        dateFolder(std::chrono::hours(1));
        devices();
        change();
        return devices();
    }

    std::filesystem::path folder() const { return scratch().path() / home(); }

  private:
    const long long now_ = [] {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        return static_cast<long long>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    }();
};

TEST_F(FolderTest, WhatComesAndGoesIsListedAtOnce) {
    EXPECT_EQ(listAfter([&] { rename("A0.json", "A0.bak"); }), Devices{"T1"});
    EXPECT_EQ(listAfter([&] { rename("A0.bak", "A0.json"); }), (Devices{"A0", "T1"}));
    EXPECT_EQ(listAfter([] { EXPECT_EQ(talvik("token detach A0"), 0); }), Devices{"T1"});
    EXPECT_EQ(listAfter([] { EXPECT_EQ(talvik("token create --id A1 --pin 1234"), 0); }), (Devices{"A1", "T1"}));
    EXPECT_EQ(listAfter([] { EXPECT_EQ(talvik("token delete A1 --yes"), 0); }), Devices{"T1"});
    std::filesystem::create_directory(folder() / "other");
    rename("T1.json", "other/T1.json");
    dateFolder(std::chrono::hours(1), "other");
    EXPECT_EQ(listAfter([&] { SetEnvironmentVariableW(L"TALVIK_TOKEN_HOME", (folder() / "other").c_str()); }),
              Devices{"T1"});
}

TEST_F(FolderTest, IsReadAgainWhenItsDateDoesNotTell) {
    const auto listAfterReturn = [&](std::chrono::seconds ago) {
        rename("A0.json", "A0.bak");
        dateFolder(ago);
        EXPECT_EQ(devices(), Devices{"T1"});
        rename("A0.bak", "A0.json");
        dateFolder(ago);
        return devices();
    };
    EXPECT_EQ(listAfterReturn(std::chrono::seconds(0)), (Devices{"A0", "T1"}));  // within one step of the clock
    EXPECT_EQ(listAfterReturn(-std::chrono::hours(1)), (Devices{"A0", "T1"}));   // the clock was set back
    EXPECT_EQ(listAfterReturn(std::chrono::hours(1)), Devices{"T1"});            // as cannot happen: it was not read
}

TEST_F(VirtualTokenTest, WhatIsNoTokenIsReadOnce) {
    const std::string file = home() + "/T1.json";
    const auto path = scratch().path() / file;
    const Bytes good = read(file);
    const auto written = std::filesystem::last_write_time(path);
    write(file, Bytes(good.size(), '{'));
    std::filesystem::last_write_time(path, written + std::chrono::hours(1));
    EXPECT_EQ(talvik_initDevice(device, true, nullptr), StorageFailure);
    write(file, good);
    std::filesystem::last_write_time(path, written + std::chrono::hours(1));  // looks unchanged
    EXPECT_EQ(talvik_initDevice(device, true, nullptr), StorageFailure);
    std::filesystem::last_write_time(path, written);
    EXPECT_EQ(talvik_initDevice(device, true, nullptr), 0);
    std::filesystem::resize_file(path, (64u << 20) + 1);  // with zeros, which end the text
    EXPECT_EQ(talvik_initDevice(device, true, nullptr), StorageFailure);
}

}  // namespace
}  // namespace talvik_test
