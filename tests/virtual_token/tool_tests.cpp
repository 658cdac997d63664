// talvik.exe: exit codes and what it prints for scripts.
#include <cstring>
#include <nlohmann/json.hpp>

#include "virtual_token/fixture.h"

namespace talvik_test {
namespace {

TEST_F(VirtualTokenTest, ToolExitCodes) {
    run("req -x509 -newkey rsa:2048 -nodes -keyout private.pem -subj /CN=Tool -days 9 -out tool.pem");
    write("pin.txt", bytesOf("1234\r\n"));
    write("pin16.txt", {0xFF, 0xFE, '1', 0, '2', 0, '3', 0, '4', 0, '\r', 0, '\n', 0});
    write("pin8.txt", bytesOf("\xEF\xBB\xBF"
                              "1234"));
    write("empty.txt", {});
    const std::string folder = scratch().path().string() + "\\";
    const struct {
        std::string arguments;
        int exitCode;
    } rows[] = {
        {"--help", 0},
        {"", 2},
        {"token", 2},
        {"token create --id T1 --pin 1234", 4},
        {"token create --id T2 --pin 123", 2},
        {"token create --id a/b --pin 1234", 2},
        {"token create --id CON --pin 1234", 2},
        {"token create --id T2 --pin 4321 --admin-pin 8888 --detached", 0},
        {"token unblock T2 --admin-pin 8888 --new-pin 1111", 1},  // detached
        {"token attach T2", 0},
        {"token unblock T2 --admin-pin 8888 --new-pin 1111", 0},
        {"token show T9", 3},
        {"token sso on T2 --pin-file " + folder + "pin.txt", 1},
        {"token sso on T1 --pin-file " + folder + "pin.txt", 0},
        {"token import-cert T1 " + folder + "nothing.pem --pin 1234", 5},
        {"token import-cert T1 " + folder + "pin.txt --pin 1234", 1},
        {"token import-cert T1 " + folder + "tool.pem --pin 1234", 0},
        {"token export-cert T1 --out " + folder + "back.der --der", 0},
        {"token export-cert T2 --out " + folder + "none.pem", 3},
        {"token delete-key T1 00 --pin 1234", 3},
        {"tokn list", 2},
        {"token show t1", 3},
        {"token create --id t1 --pin 1234", 4},
        {"token create --id T3 --pin p\xC3\xA4ss", 2},
        {"token create --id T3 --pin 1234 --label " + std::string(128, 'x'), 2},
        {"token create --id T3 --pin 1234 --label \"a\x1B\"", 2},
        {"token create --id T3 --pin 1234 --firmware two", 2},
        {"token change-pin T1 --pin-file " + folder + "pin16.txt --new-pin-file " + folder + "pin8.txt", 0},
        {"token change-pin T1 --pin-file " + folder + "empty.txt --new-pin 5555", 2},
        {"token change-admin-pin T2 --admin-pin 8888 --new-admin-pin 9999", 0},
        {"token unblock T2 --admin-pin 8888 --new-pin 2222", 1},
        {"token unblock T2 --admin-pin 9999 --new-pin 2222", 0},
        {"token delete-cert T1 CN=Tool --pin 1234", 0},
        {"token delete T2 --yes", 0},
        {"token delete T2 --yes", 3},
        {"completion bash", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(talvik(row.arguments), row.exitCode) << row.arguments;
    }
    run("x509 -in tool.pem -outform DER -out tool.der");
    EXPECT_EQ(read("back.der"), read("tool.der"));
}

// The output of talvik.exe, as a script sees it.
nlohmann::json jsonOf(const std::string& arguments) {
    EXPECT_EQ(talvik(arguments, "out.json"), 0);
    return nlohmann::json::parse(read("out.json"));
}

TEST_F(VirtualTokenTest, ToolShowsWhatATokenHolds) {
    const Key key = generate(TALVIK_KEY_EC_P384, TALVIK_USAGE_SIGN);
    ASSERT_EQ(talvik("token create --id T2 --label Second --pin 1234 --detached"), 0);
    TalvikKeyPair named{};  // as any program may name it
    named.keyType = TALVIK_KEY_EC_P256;
    std::strcpy(named.label, "Sec\x1B\nond\x7F");
    ASSERT_EQ(talvik_generateKeyPair(device, pin, &named, nullptr), 0);
    EXPECT_EQ(talvik("token show T1", "out.txt"), 0);  // in a line of its own, and no terminal is steered
    const Bytes text = read("out.txt");
    EXPECT_NE(std::string(text.begin(), text.end()).find("Sec\\x1B\\x0Aond\\x7F\r\n"), std::string::npos);
    login("9999");
    const auto list = jsonOf("token list --json");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].at("attemptsLeft"), 2);
    EXPECT_EQ(list[1].at("label"), "Second");
    EXPECT_EQ(list[0].at("keyPairCount"), 2);
    EXPECT_EQ(list[1].at("attached"), false);
    const auto shown = jsonOf("token show T1 --json");
    EXPECT_EQ(shown.at("keyPairs").at(0).at("type"), "P-384");
    EXPECT_EQ(shown.at("keyPairs").at(1).at("label"), named.label);
    const std::string id = shown.at("keyPairs").at(0).at("id");
    EXPECT_EQ(talvik("token delete-key T1 " + id + " --pin 1234"), 0);
    EXPECT_EQ(sign(key, pattern(32)).status, NoSuchObject);
}

}  // namespace
}  // namespace talvik_test
