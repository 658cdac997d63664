// The programs that the README shows, run by themselves: their signatures are what openssl accepts.
#include "e2e_ksp/cng.h"

namespace e2e {
namespace {

class Examples : public Tokens {};

// What a program beside this one signed, given the PIN after its other arguments.
Bytes signedBy(const std::string& program, const std::string& arguments = {}) {
    const std::filesystem::path file = scratch().path() / "signed";
    const std::filesystem::path folder = std::filesystem::path(thisProgram().substr(1)).parent_path();
    const std::string rest = program + ".exe\" " + arguments + ' ' + pin;
    const std::wstring line = L"cmd /c \"\"" + folder.wstring() + L'\\' + std::wstring(rest.begin(), rest.end()) +
                              L" > \"" + file.wstring() + L"\"\"";
    EXPECT_EQ(ChildProcess(line).wait(), 0u);
    const Bytes text = read("signed");
    Bytes signature;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        signature.push_back(static_cast<unsigned char>(std::stoi(std::string(&text[i], &text[i + 2]), nullptr, 16)));
    }
    return signature;
}

TEST_F(Examples, SignOnEitherFace) {
    const CngObject provider = openProvider();
    ASSERT_EQ(givePin(provider), ERROR_SUCCESS);
    const CngObject key = createKey(provider, L"RSA");
    const Bytes publicKey = publicKeyOf(key);
    EXPECT_TRUE(opensslAccepts(publicKey, "-sha256", bytesOf("hello"), reversed(signedBy("sign_cryptoapi"))));
    Bytes digest(32);
    digest[0] = 1, digest[1] = 2, digest[2] = 3;
    EXPECT_TRUE(opensslVerifies(publicKey, "sha256", digest, signedBy("sign_cng", nameOf(key)),
                                " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:32"));
}

}  // namespace
}  // namespace e2e
