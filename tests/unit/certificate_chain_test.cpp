#include "csp/certificate_chain.h"

#include "support/openssl.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

constexpr char ROOT_FOUND[] = "DEBUG [ROOT] Self-signed root detected.";
const Bytes GARBAGE = {0x30, 0x03, 1, 2, 3}, ENDLESS = {0x30, 0x80, 0, 0};

// Certificates of openssl's, made once: root, intermediate and leaf; two that name each other as issuer; an orphan.
struct Certificates {
    Certificates() {
        openssl("req -x509 -newkey rsa:1024 -nodes -keyout key -out root -days 9 -subj /CN=Root");
        root = der("root");
        intermediate = issue("/CN=Intermediate", "root");
        leaf = issue("/CN=Leaf", "Intermediate");
        issue("/CN=Two", "root");
        one = issue("/CN=One", "Two");
        two = issue("/CN=Two", "One");
        issue("/CN=Stranger", "root");
        orphan = issue("/CN=Orphan", "Stranger");
    }

    Bytes root, intermediate, leaf, one, two, orphan;

  private:
    // All have the same key; the names are what the order goes by.
    Bytes issue(const std::string& subject, const std::string& issuer) {
        const std::string name = subject.substr(4);
        openssl("req -new -key key -subj " + subject + " -out request");
        openssl("x509 -req -in request -CA " + issuer + " -CAkey key -set_serial " + number(++serial_) +
                " -days 9 -out " + name);
        return der(name);
    }
    Bytes der(const std::string& name) {
        openssl("x509 -in " + name + " -outform DER -out der");
        return scratch_.read("der");
    }
    void openssl(const std::string& arguments) { talvik_test::openssl(scratch_, arguments); }

    talvik_test::ScratchFolder scratch_;
    int serial_ = 0;
};

const Certificates& certificates() {
    static const Certificates made;
    return made;
}

TokenCertificates on(const std::vector<Bytes>& token) {
    std::vector<TalvikCertificate> records;
    for (const Bytes& der : token)
        records.push_back(scripted::certificateOf(scripted::keyPair(0x11), der));
    return TokenCertificates(std::move(records));
}

class CertificateChainTest : public ProviderTest {
  protected:
    using Chain = std::vector<Bytes>;
    Chain ordered(const Chain& token, std::size_t leaf) {
        TokenCertificates held = on(token);
        log.mark();
        Chain chain;
        for (const std::size_t index : orderCertificateChain(leaf, held))
            chain.push_back(token[index]);
        return chain;
    }
    Shown building(const std::vector<std::size_t>& chain, TokenCertificates& held, DWORD room, bool hasBuffer = true) {
        return [=, this, &held] {
            offer(room);
            return BuildCertificateChain(chain, held, hasBuffer ? data.data() : nullptr, &size);
        };
    }

    const Certificates& of = certificates();
};

TEST_F(CertificateChainTest, OrdersLeafToRootWhateverTheTokensOrder) {
    Chain token = {of.leaf, of.intermediate, of.root, of.orphan, GARBAGE, Bytes()};
    std::sort(token.begin(), token.end());
    do {
        const auto leaf = std::find(token.begin(), token.end(), of.leaf) - token.begin();
        ASSERT_EQ(ordered(token, static_cast<std::size_t>(leaf)), Chain({of.leaf, of.intermediate, of.root}));
    } while (std::next_permutation(token.begin(), token.end()) && !HasFailure());
    EXPECT_EQ(log.entries(), Lines({ROOT_FOUND}));
}

TEST_F(CertificateChainTest, EndsWhereNoIssuerIsOrACertificateRepeats) {
    const struct {
        const char* name;
        Chain token, chain;
        Lines lines;
    } rows[] = {{"issuer not on the token", {of.leaf, of.root}, {of.leaf}, {}},
                {"root missing", {of.leaf, of.intermediate}, {of.leaf, of.intermediate}, {}},
                {"alone", {of.orphan}, {of.orphan}, {}},
                {"undecodable leaf", {GARBAGE, of.root}, {GARBAGE}, {"DEBUG [ERROR] Cannot parse leaf cert"}},
                {"leaf of no length", {ENDLESS, of.root}, {ENDLESS}, {"DEBUG [ERROR] Cannot parse leaf cert"}},
                {"empty leaf", {Bytes(), of.root}, {Bytes()}, {"DEBUG [ERROR] Cannot parse leaf cert"}},
                {"self-signed leaf", {of.root, of.intermediate}, {of.root}, {}},
                {"self-signed leaf twice", {of.root, of.root}, {of.root, of.root}, {ROOT_FOUND}},
                {"each the other's issuer", {of.one, of.two}, {of.one, of.two}, {}},
                {"a loop above the leaf", {of.one, of.two, of.one}, {of.one, of.two, of.one}, {}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(ordered(row.token, 0), row.chain);
        EXPECT_EQ(log.entries(), row.lines);
    }
}

// The message's encoder may sort its certificates; this is the order that it gets them in.
TEST_F(CertificateChainTest, HandsTheEncoderTheRootFirst) {
    const auto store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    for (const Bytes& der : {of.leaf, of.root, of.intermediate})
        EXPECT_TRUE(CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(),
                                                     static_cast<DWORD>(der.size()), CERT_STORE_ADD_ALWAYS, nullptr));
    const CertificateContext leaf(
        CertCreateCertificateContext(X509_ASN_ENCODING, of.leaf.data(), static_cast<DWORD>(of.leaf.size())));
    CERT_CHAIN_PARA parameters = {};
    parameters.cbSize = sizeof parameters;
    PCCERT_CHAIN_CONTEXT chain = nullptr;
    ASSERT_TRUE(CertGetCertificateChain(nullptr, leaf.get(), nullptr, store, &parameters, 0, nullptr, &chain));
    Chain encoded;
    for (const CERT_BLOB& blob : rootFirst(*chain))
        encoded.emplace_back(blob.pbData, blob.pbData + blob.cbData);
    EXPECT_EQ(encoded, Chain({of.root, of.intermediate, of.leaf}));
    CertFreeCertificateChain(chain);
    CertCloseStore(store, 0);
}

TEST_F(CertificateChainTest, EncodesBySizeRule) {
    TokenCertificates held = on({of.intermediate, of.leaf, of.root});
    const std::vector<std::size_t> chain = orderCertificateChain(1, held);
    EXPECT_EQ(chain, std::vector<std::size_t>({1, 0, 2}));
    const CERT_CONTEXT* const decoded[] = {held.decoded(0), held.decoded(1), held.decoded(2)};

    EXPECT_TRUE(building(chain, held, UNTOUCHED, false)());
    const DWORD needed = size;
    EXPECT_THAT(needed, AllOf(Gt(of.root.size() + of.intermediate.size() + of.leaf.size()), Lt(4096u)));
    for (const DWORD room : {DWORD{0}, DWORD{1}, needed - 1}) {
        EXPECT_TRUE(building(chain, held, room)());
        EXPECT_EQ(GetLastError(), DWORD{ERROR_MORE_DATA});
        EXPECT_TRUE(isOnlyTold(needed));
    }
    for (const DWORD room : {needed, needed + 1}) {
        EXPECT_TRUE(building(chain, held, room)());
        EXPECT_EQ(size, needed);
    }
    const Bytes message = delivered();
    for (const Bytes& der : {of.root, of.intermediate, of.leaf})
        EXPECT_NE(std::search(message.begin(), message.end(), der.begin(), der.end()), message.end());
    // Each certificate was decoded once, and is still.
    EXPECT_THAT(decoded, ElementsAre(held.decoded(0), held.decoded(1), held.decoded(2)));
}

// A record may go on behind its certificate, or lie about its length. Readers of the message would stumble over that.
TEST_F(CertificateChainTest, CutsWhatFollowsACertificate) {
    std::vector<TalvikCertificate> records;
    for (const Bytes& der : {of.leaf, of.intermediate, of.root})
        records.push_back(scripted::certificateOf(scripted::keyPair(0x11), der + bytes(9)));
    records[1].derLength = 0xFFFFFFFF;
    TokenCertificates held(records);
    const std::vector<std::size_t> chain = orderCertificateChain(0, held);
    EXPECT_EQ(chain, std::vector<std::size_t>({0, 1, 2}));
    EXPECT_TRUE(building(chain, held, 4096)());
    const talvik_test::ScratchFolder scratch;
    scratch.write("chain", delivered());
    const std::string listed = talvik_test::openssl(scratch, "pkcs7 -inform DER -in chain -print_certs -noout");
    for (const char* const name : {"Leaf", "Intermediate", "Root"})
        EXPECT_THAT(listed, HasSubstr(name));
    EXPECT_EQ(content(held.record(0).der, held.record(0).derLength), of.leaf + bytes(9));
}

TEST_F(CertificateChainTest, RefusesWhatIsNoChain) {
    TokenCertificates held = on({GARBAGE, of.root});
    show("no chain", building({}, held, 8));
    show("garbage first", building({0, 1}, held, 8));
    // Beside the leaf, what does not decode is left out.
    EXPECT_TRUE(building({1, 0}, held, 0, false)());
}

}  // namespace
