// talvik.exe from an empty token to signatures that openssl and other programs take.
#include <nlohmann/json.hpp>

#include "e2e/surroundings.h"

namespace e2e {
namespace {

using Json = nlohmann::json;

constexpr char withPin[] = " --pin 1234";

std::string path(const std::string& name) {
    return " \"" + (scratch().path() / name).string() + "\"";
}

Json jsonOf(const std::string& arguments) {
    EXPECT_EQ(talvik(arguments + " --json", "out.json"), 0) << arguments;
    return Json::parse(read("out.json"));
}

// A root in root.pem, and a certificate below it through an intermediate one for request.pem, with its issuer in
// issued.pem.
void issue(const std::string& copied) {
    write("ca.cnf", bytesOf("basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign\n"));
    run("req -x509 -newkey rsa:2048 -nodes -keyout root.key -subj /CN=Root -days 9 -out root.pem "
        "-addext keyUsage=critical,keyCertSign");
    run("req -newkey rsa:2048 -nodes -keyout middle.key -subj /CN=Middle -out middle.req");
    run("x509 -req -in middle.req -CA root.pem -CAkey root.key -set_serial 2 -days 8 -extfile ca.cnf -out middle.pem");
    run("x509 -req -in request.pem -CA middle.pem -CAkey middle.key -set_serial 3 -days 7 -copy_extensions " + copied +
        " -out leaf.pem");
    Bytes both = read("leaf.pem");
    const Bytes middle = read("middle.pem");
    both.insert(both.end(), middle.begin(), middle.end());
    write("issued.pem", both);
}

int countIn(const char* name) {
    const Store store = systemStore(name);
    int count = 0;
    for (PCCERT_CONTEXT each = nullptr; (each = CertEnumCertificatesInStore(store, each)) != nullptr;) {
        ++count;
    }
    return count;
}

class Tool : public Tokens {};
class Enrolment : public Tool, public ::testing::WithParamInterface<const char*> {};

TEST_P(Enrolment, FromKeyToSignature) {
    const std::string key = jsonOf(std::string("key generate --type ") + GetParam() + withPin).at("container");
    ASSERT_EQ(talvik("request --key " + key +
                     " --subject \"O=Example, CN=Zo\xC3\xAB\" --dns a.example --email z@b.example "
                     "--usage digitalSignature,emailProtection --out" +
                     path("request.pem") + withPin),
              0);
    const std::string request = run("req -in request.pem -verify -noout -text -nameopt RFC2253,-esc_msb");
    for (const char* expected :
         {"CN=Zo\xC3\xAB,O=Example", "DNS:a.example", "email:z@b.example", "Digital Signature", "E-mail Protection"}) {
        EXPECT_NE(request.find(expected), std::string::npos) << expected << " in\n" << request;
    }

    issue("copy");
    EXPECT_EQ(talvik("certs import" + path("middle.pem") + withPin), 3);  // for no key, and not asked for
    ASSERT_EQ(talvik("certs import" + path("issued.pem") + withPin), 0);
    const Json certificates = jsonOf("certs list");
    ASSERT_EQ(certificates.size(), 2u);
    EXPECT_EQ(certificates.at(1).at("container"), key);
    EXPECT_EQ(certificates.at(1).at("usages"), Json({"digitalSignature", "emailProtection"}));

    const int own = countIn("MY"), issuers = countIn("CA");
    const bool hasFace = std::string(GetParam()).starts_with("RSA");  // of elliptic curves CNG, which is not here
    EXPECT_EQ(talvik("certs publish"), hasFace ? 0 : 1);
    EXPECT_EQ(countIn("MY"), own + (hasFace ? 1 : 0));
    EXPECT_EQ(countIn("CA"), issuers + 1);
    EXPECT_EQ(talvik("certs withdraw"), 0);
    EXPECT_EQ(countIn("MY"), own);
    EXPECT_EQ(countIn("CA"), issuers);

    write("text", bytesOf("What is signed.\n"));
    ASSERT_EQ(talvik("sign" + path("text") + " --key " + key + " --out" + path("text.p7s") + withPin), 0);
    ASSERT_EQ(talvik("sign" + path("text") + " --attached --out" + path("text.p7m") + withPin), 0);
    run("cms -verify -binary -inform DER -in text.p7s -content text -CAfile root.pem -out /dev/null");
    run("cms -verify -binary -inform DER -in text.p7m -CAfile root.pem -out back");
    EXPECT_EQ(read("back"), read("text"));
    const std::string detached = "verify" + path("text.p7s") + " --ca" + path("root.pem") + " --content";
    EXPECT_EQ(talvik(detached + path("text")), 0);
    EXPECT_EQ(talvik("verify" + path("text.p7m") + " --ca" + path("root.pem")), 0);
    EXPECT_EQ(talvik(detached + path("root.pem")), 1);                                // another content
    EXPECT_EQ(talvik("verify" + path("text.p7s") + " --content" + path("text")), 1);  // a root of nobody's trust

    EXPECT_EQ(talvik("key delete " + key + withPin), 0);
    EXPECT_TRUE(jsonOf("key list").empty());
}
INSTANTIATE_TEST_SUITE_P(Types, Enrolment, ::testing::Values("RSA-2048", "RSA-3072", "P-256", "P-384", "P-521"));

// What openssl makes of a key is taken in, and signs as that key.
TEST_F(Tool, TakesKeysOfFiles) {
    run("req -x509 -newkey rsa:2048 -nodes -keyout rsa.pem -subj /CN=Rsa -days 9 -out rsa.crt");
    run("ecparam -name secp384r1 -genkey -noout -out ec.sec1");
    run("pkcs8 -topk8 -nocrypt -in ec.sec1 -outform DER -out ec.der");
    run("req -x509 -new -key ec.sec1 -subj /CN=Ec -days 9 -out ec.crt");
    run("pkcs8 -topk8 -v2 aes-256-cbc -passout pass:secret -in rsa.pem -out sealed.pem");
    run("pkcs12 -export -inkey ec.sec1 -in ec.crt -certfile rsa.crt -passout pass:secret -out modern.p12");
    const std::string ofRsa = "-inkey rsa.pem -in rsa.crt -passout pass:secret -out old.p12";
    if (!opensslAgrees("pkcs12 -export -legacy " + ofRsa)) {  // which not every openssl can
        run("pkcs12 -export " + ofRsa);
    }
    run("genrsa -3 -out e3.pem 2048");
    write("nothing.p12", bytesOf("no such file"));
    Bytes cut = read("modern.p12");
    cut.resize(cut.size() / 2);
    write("cut.p12", cut);
    const struct {
        std::string arguments;
        int exitCode;
    } rows[] = {
        {"import-key " + token() + path("ec.der"), 0},
        {"import-key " + token() + path("ec.der"), 4},  // it is there
        {"import-p12 " + token() + path("modern.p12") + " --password secret", 4},
        {"import-key " + token() + path("ec.sec1"), 1},
        {"import-key " + token() + path("e3.pem"), 1},
        {"import-key " + token() + path("rsa.crt"), 1},
        {"import-key " + token() + path("sealed.pem") + " --password wrong", 1},
        {"import-p12 " + token() + path("old.p12") + " --password wrong", 1},
        {"import-p12 " + token() + path("nothing.p12") + " --password secret", 1},
        {"import-p12 " + token() + path("cut.p12") + " --password secret", 1},
        {"import-key " + token() + path("sealed.pem") + " --password secret --label mine", 0},
        {"delete-key " + token() + " mine", 0},
        {"import-p12 " + token() + path("old.p12") + " --password secret --label mine", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(talvik("token " + row.arguments + withPin), row.exitCode) << row.arguments;
    }
    const Json shown = jsonOf("token show " + token());
    EXPECT_EQ(shown.at("keyPairs").size(), 2u);
    EXPECT_EQ(shown.at("attemptsLeft"), 3);

    write("text", bytesOf("text"));
    ASSERT_EQ(talvik("sign" + path("text") + " --key mine --out" + path("text.p7s") + withPin), 0);
    run("cms -verify -binary -inform DER -in text.p7s -content text -CAfile rsa.crt -out /dev/null");
    EXPECT_EQ(talvik("token delete-cert " + token() + " CN=Rsa" + withPin), 0);
    EXPECT_EQ(talvik("sign" + path("text") + " --key mine --out" + path("none.p7s") + withPin), 3);

    // A P-384 key of a PKCS #12 file, with a certificate of somebody else beside its own.
    EXPECT_EQ(talvik("token delete " + token() + " --yes"), 0);
    EXPECT_EQ(talvik("token create --id " + token() + withPin), 0);
    EXPECT_EQ(talvik("token import-p12 " + token() + path("modern.p12") + " --password secret" + withPin), 0);
    ASSERT_EQ(talvik("sign" + path("text") + " --out" + path("text.p7s") + withPin), 0);
    run("cms -verify -binary -inform DER -in text.p7s -content text -CAfile ec.crt -out /dev/null");
    EXPECT_EQ(talvik("token delete-cert " + token() + " CN=Rsa" + withPin), 0);  // of no key
}

// What is refused has changed nothing and cost no attempt.
TEST_F(Tool, RefusesWithAnExitCodeAndLeavesTheTokenAlone) {
    ASSERT_EQ(talvik(std::string("key generate --type P-256 --label ours") + withPin), 0);
    write("text", bytesOf("text"));
    write("other.pin", {'1', '2', 0, '3', '4'});
    const std::string file = home() + "/" + token() + ".json";
    const Bytes before = read(file);
    const auto refused = [&](const std::string& arguments, int exitCode) {
        EXPECT_EQ(talvik(arguments), exitCode) << arguments;
        EXPECT_EQ(read(file), before) << arguments;
    };
    refused("key generate --pin 12", 2);
    refused("key generate --pin-file" + path("other.pin"), 2);
    refused("key generate --pin-file" + path("none"), 5);
    refused("key generat", 2);
    refused(std::string("key delete theirs") + withPin, 3);
    refused("request --key ours --subject nonsense --out" + path("x") + withPin, 2);
    refused("request --key ours --subject CN=x --out" + path("none/x") + withPin, 5);
    refused("sign" + path("text") + " --key ours --out" + path("x") + withPin, 3);  // without a certificate
    refused("certs import" + path("text") + withPin, 1);
    refused("verify" + path("text"), 1);

    const std::filesystem::path inTheWay = scratch().path() / (file + ".new");
    std::filesystem::create_directory(inTheWay);
    refused(std::string("key generate") + withPin, 5);  // cannot be written
    std::filesystem::remove(inTheWay);
    addToken("A" + token());
    refused(std::string("key generate") + withPin, 2);  // on which?
    change("detach", "A" + token());
    change("detach", token());
    EXPECT_EQ(talvik("key list"), 3);
}

}  // namespace
}  // namespace e2e
