#include "csp/hash.h"
#include "csp/pieces.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

struct Algorithm {
    ALG_ID id;
    std::uint32_t mechanism;
    DWORD size;
    const char* line;
};
constexpr Algorithm algorithms[] = {{CALG_SHA1, 2, 20, "DEBUG Crete hash algorithm sha1"},
                                    {CALG_SHA_256, 3, 32, "DEBUG Crete hash algorithm 256"},
                                    {CALG_SHA_384, 4, 48, "DEBUG Crete hash algorithm 384"},
                                    {CALG_SHA_512, 5, 64, "DEBUG Crete hash algorithm 512"}};

std::string initHash(unsigned int mechanism) {
    return "talvik_initHash(\"T1\", " + number(mechanism) + ", out, null)";
}
std::string finalHash(const std::string& handle, DWORD preset) {
    return "talvik_finalHash(" + handle + ", out, " + number(preset) + ", null)";
}
Lines paramLog(DWORD param, unsigned int mechanism) {
    return {"DEBUG CPGetHashParam", "DEBUG CPGetHashParam dwParam : " + number(param),
            "DEBUG CPGetHashParam mechanism : " + number(mechanism)};
}

class CspHashTest : public ProviderTest {
  protected:
    CspHashTest() : prov(acquire()) {}
    ~CspHashTest() override {
        for (const HCRYPTHASH hash : made_)
            EXPECT_TRUE(CPDestroyHash(prov, hash));
    }

    HCRYPTHASH create(ALG_ID algorithm = CALG_SHA_256) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CPCreateHash(prov, algorithm, 0, 0, &hash));
        return owned(hash);
    }
    HCRYPTHASH owned(HCRYPTHASH hash) {
        made_.push_back(hash);
        return hash;
    }
    Call get(HCRYPTHASH hash, DWORD param, DWORD room, bool hasBuffer = true) {
        return [=, this] {
            offer(room);
            return CPGetHashParam(prov, hash, param, hasBuffer ? data.data() : nullptr, &size, 0);
        };
    }

    const HCRYPTPROV prov;
    csp::HASH_CONTEXT unmade;
    const HCRYPTHASH notValid = reinterpret_cast<HCRYPTHASH>(&unmade);

  private:
    std::vector<HCRYPTHASH> made_;
};

TEST_F(CspHashTest, EveryAlgorithmOpensItsDeviceHash) {
    for (const Algorithm& row : algorithms) {
        HCRYPTHASH hash = 0;
        expectSuccess([&] { return CPCreateHash(prov, row.id, 99, 0, &hash); },
                      {"DEBUG CPCreateHash", "DEBUG Crete hash algorithm input : " + number(row.id), row.line,
                       "DEBUG Crete hash algorithm : " + number(row.mechanism)},
                      {initHash(row.mechanism)});
        const csp::HASH_CONTEXT& record = *csp::hashOf(owned(hash));
        EXPECT_EQ(std::tuple(record.hashAlgWord, record.mechanism, record.mechanismCopy, record.hashSize,
                             record.hashValueLen, record.isValid, record.isFinalized),
                  std::tuple(0u, row.mechanism, row.mechanism, row.size, 0u, 1, 0));
    }
}

TEST_F(CspHashTest, CreationRefusals) {
    HCRYPTHASH hash = UNTOUCHED_HANDLE;
    const auto refused = refusalsOf("CPCreateHash", CPCreateHash);
    const std::string parameters = "CPCreateHash: invalid parameter - phHash=";
    refused(ERROR_INVALID_PARAMETER, parameters + "0 hProv=" + number(prov), prov, CALG_SHA1, 0, 1, nullptr);
    refused(ERROR_INVALID_PARAMETER, parameters + number(&hash) + " hProv=0", 0, CALG_SHA1, 0, 1, &hash);
    refused(NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x0000ABC1", invalid, CALG_MD5, 0, 0x0000ABC1, &hash);
    refused(NTE_BAD_UID, "CPCreateHash: context not initialized", invalid, CALG_MD5, 0, 0, &hash);
    const std::pair<ALG_ID, std::string> unsupported[] = {
        {CALG_MD5, "00008003"}, {CALG_HMAC, "00008009"}, {0, "00000000"}, {2, "00000002"}, {0xFFFF800C, "FFFF800C"}};
    for (const auto& [id, digits] : unsupported)
        refused(NTE_BAD_ALGID, "CPCreateHash: unsupported Algid=0x" + digits, prov, id, 0, 0, &hash);
    EXPECT_THAT(log.entries(), Contains("DEBUG Crete hash algorithm input : 4294934540"));
    scripted::next("talvik_initHash", {.status = -12});
    expectFailure([&] { return CPCreateHash(prov, CALG_SHA_512, 0, 0, &hash); }, NTE_FAIL,
                  {"DEBUG CPCreateHash", "DEBUG Crete hash algorithm input : 32782", algorithms[3].line,
                   "DEBUG Crete hash algorithm : 5", "ERROR CPCreateHash: talvik_initHash failed, ret=-12"},
                  {initHash(5)});
    EXPECT_EQ(hash, UNTOUCHED_HANDLE);
}

TEST_F(CspHashTest, DataGoesToTheDeviceAsItIs) {
    const HCRYPTHASH hash = create();
    const Bytes data = bytes(3, 0x61);
    expectSuccess([&] { return CPHashData(prov, hash, data.data(), 3, 0xFF); }, {"DEBUG CPHashData"},
                  {"talvik_updateHash(#1, 616263, 3, null)"});
    expectSuccess([&] { return CPHashData(prov, hash, nullptr, 0, 0); }, {"DEBUG CPHashData"},
                  {"talvik_updateHash(#1, null, 0, null)"});
    scripted::next("talvik_updateHash", {.status = 77});
    expectFailure([&] { return CPHashData(prov, hash, data.data(), 1, 0); }, NTE_FAIL,
                  {"DEBUG CPHashData", "ERROR CPHashData: talvik_updateHash failed, ret=77"},
                  {"talvik_updateHash(#1, 61, 1, null)"});
    const auto refused = refusalsOf("CPHashData", CPHashData);
    const std::string context = "CPHashData: invalid or uninitialized context";
    refused(NTE_BAD_UID, context, 0, 0, data.data(), 3, 0);
    refused(NTE_BAD_UID, context, invalid, hash, data.data(), 3, 0);
    refused(NTE_BAD_HASH, "CPHashData: pHashHandle is NULL", prov, 0, data.data(), 3, 0);
}

TEST_F(CspHashTest, ParameterRefusals) {
    const HCRYPTHASH hash = create();
    BYTE buffer[64] = {};
    size = 64;
    const auto get = refusalsOf("CPGetHashParam", CPGetHashParam);
    const std::string parameter = ": invalid parameter - hProv=";
    const std::string notInitialized = ": context not initialized or hash not valid", of = "CPGetHashParam";
    get(ERROR_INVALID_PARAMETER, of + parameter + "0 hHash=" + number(hash) + " pcbDataLen=" + number(&size), 0, hash,
        HP_ALGID, buffer, &size, 0);
    get(ERROR_INVALID_PARAMETER, of + parameter + number(prov) + " hHash=0 pcbDataLen=" + number(&size), prov, 0,
        HP_ALGID, buffer, &size, 0);
    get(ERROR_INVALID_PARAMETER, of + parameter + number(prov) + " hHash=" + number(hash) + " pcbDataLen=0", prov, hash,
        HP_ALGID, buffer, nullptr, 1);
    get(NTE_BAD_FLAGS, of + ": invalid dwFlags=0x00000010", invalid, hash, HP_ALGID, buffer, &size, 16);
    get(NTE_BAD_HASH, of + notInitialized, invalid, hash, HP_ALGID, buffer, &size, 0);
    get(NTE_BAD_HASH, of + notInitialized, prov, notValid, HP_ALGID, buffer, &size, 0);
    get(NTE_BAD_TYPE, of + ": unsupported dwParam=0xABCDEF12", prov, hash, 0xABCDEF12, nullptr, &size, 0);
    get(NTE_BAD_TYPE, of + ": HP_HMAC_INFO requested but hash is not HMAC", prov, hash, HP_HMAC_INFO, buffer, &size, 0);
    EXPECT_EQ(size, 64u);

    const auto set = refusalsOf("CPSetHashParam", CPSetHashParam);
    const std::string to = "CPSetHashParam";
    set(ERROR_INVALID_PARAMETER, to + parameter + "0 hHash=" + number(hash) + " pbData=" + number(buffer), 0, hash,
        HP_HASHVAL, buffer, 0);
    set(ERROR_INVALID_PARAMETER, to + parameter + number(prov) + " hHash=0 pbData=" + number(buffer), prov, 0,
        HP_HASHVAL, buffer, 0);
    set(ERROR_INVALID_PARAMETER, to + parameter + number(prov) + " hHash=" + number(hash) + " pbData=0", prov, hash,
        HP_HASHVAL, nullptr, 1);
    set(NTE_BAD_FLAGS, to + ": invalid dwFlags=0x00000002", invalid, hash, HP_HASHVAL, buffer, 2);
    set(NTE_BAD_HASH, to + notInitialized, invalid, hash, HP_HASHVAL, buffer, 0);
    set(NTE_BAD_HASH, to + notInitialized, prov, notValid, HP_HASHVAL, buffer, 0);
    set(NTE_BAD_TYPE, to + ": unsupported dwParam=0x00000001", prov, hash, HP_ALGID, buffer, 0);
}

// HP_ALGID and HP_HASHSIZE: a 32-bit answer, whatever room there is.
TEST_F(CspHashTest, WordParametersFollowTheSizeRule) {
    for (const Algorithm& row : algorithms) {
        const HCRYPTHASH hash = create(row.id);
        const std::tuple<DWORD, DWORD, const char*> parameters[] = {{HP_ALGID, row.id, "HP_ALGID"},
                                                                    {HP_HASHSIZE, row.size, "HP_HASHSIZE"}};
        for (const auto& [param, expected, name] : parameters) {
            const Lines lines = paramLog(param, row.mechanism);
            for (const DWORD room : {0, 1, 2, 3}) {
                expectFailure(get(hash, param, room), ERROR_MORE_DATA,
                              lines + (std::string("ERROR CPGetHashParam: ") + name + " buffer too small"));
                EXPECT_TRUE(isOnlyTold(4));
            }
            expectSuccess(get(hash, param, UNTOUCHED, false), lines);
            EXPECT_TRUE(isOnlyTold(4));
            const std::string told = "DEBUG Get hash param hashSize : " + number(row.size);
            expectSuccess(get(hash, param, 8),
                          lines + (param == HP_HASHSIZE ? Lines{told} : Lines{}) + "DEBUG Get hash param success");
            EXPECT_EQ(delivered(), words({expected}));
        }
    }
}

TEST_F(CspHashTest, TheDigestIsFinishedOnceAndThenCached) {
    for (const Algorithm& row : algorithms) {
        scripted::reset();
        const HCRYPTHASH hash = create(row.id);
        const Bytes digest = bytes(row.size, 0x10);
        const Lines lines = paramLog(HP_HASHVAL, row.mechanism);
        const std::string tooSmall = "ERROR CPGetHashParam: HP_HASHVAL buffer too small for ";
        scripted::always("talvik_finalHash", {.output = digest});
        expectSuccess(get(hash, HP_HASHVAL, UNTOUCHED, false), lines);
        EXPECT_TRUE(isOnlyTold(row.size));
        expectFailure(get(hash, HP_HASHVAL, 10), ERROR_MORE_DATA, lines + (tooSmall + "finalized hash"),
                      {finalHash("#1", row.size)});
        EXPECT_TRUE(isOnlyTold(row.size));
        expectFailure(get(hash, HP_HASHVAL, row.size - 1), ERROR_MORE_DATA, lines + (tooSmall + "cached hash value"));
        EXPECT_TRUE(isOnlyTold(row.size));
        expectSuccess(get(hash, HP_HASHVAL, row.size), lines);
        EXPECT_EQ(delivered(), digest);
        // Data that comes later reaches the device and changes nothing here.
        EXPECT_TRUE(CPHashData(prov, hash, data.data(), 1, 0));
        EXPECT_EQ(csp::hashOf(hash)->hashValueLen, row.size);
    }
}

TEST_F(CspHashTest, AFailedDigestIsAskedForAgain) {
    const HCRYPTHASH hash = create();
    scripted::next("talvik_finalHash", {.status = 3});
    scripted::always("talvik_finalHash", {.output = bytes(32)});
    expectFailure(get(hash, HP_HASHVAL, 33), NTE_FAIL,
                  paramLog(HP_HASHVAL, 3) + "ERROR CPGetHashParam: talvik_finalHash failed, ret=3",
                  {finalHash("#1", 32)});
    EXPECT_TRUE(isOnlyTold(33) && csp::hashOf(hash)->isFinalized == 0);
    expectSuccess(get(hash, HP_HASHVAL, 32), paramLog(HP_HASHVAL, 3), {finalHash("#1", 32)});
    EXPECT_EQ(delivered(), bytes(32));
}

// A digest of a length that cannot be is a failure of the operation: nothing is cached, nothing overrun.
TEST_F(CspHashTest, ALyingDigestLengthIsAFailure) {
    for (const int lie : {-1, INT_MIN, 129, 4096, INT_MAX}) {
        SCOPED_TRACE(lie);
        const HCRYPTHASH hash = create();
        scripted::next("talvik_finalHash", {.output = bytes(32), .length = lie});
        expectError(get(hash, HP_HASHVAL, 200), NTE_FAIL, "ERROR CPGetHashParam: talvik_finalHash failed, ret=0");
        EXPECT_TRUE(isOnlyTold(200) && csp::hashOf(hash)->isFinalized == 0);
    }
}

TEST_F(CspHashTest, HmacInfoReplacesTheDeviceHashAndIsNeverReadBack) {
    const HCRYPTHASH hash = create();
    const Bytes info = bytes(40, 3);
    const Lines lines = {"DEBUG CPSetHashParam", "DEBUG Set hash param dwParam : 5",
                         "DEBUG Set hash param dwFlags : 0"};
    expectSuccess([&] { return CPSetHashParam(prov, hash, HP_HMAC_INFO, info.data(), 0); }, lines, {initHash(3)});
    EXPECT_EQ(Bytes(csp::hashOf(hash)->hmacInfo, csp::hashOf(hash)->hmacInfo + 40), info);
    EXPECT_TRUE(CPHashData(prov, hash, info.data(), 1, 0));
    EXPECT_EQ(scripted::takeCalls(), Lines({"talvik_updateHash(#2, 03, 1, null)"}));
    expectError(get(hash, HP_HMAC_INFO, 64), NTE_BAD_TYPE,
                "ERROR CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
    scripted::next("talvik_initHash", {.status = 9});
    expectFailure([&] { return CPSetHashParam(prov, hash, HP_HMAC_INFO, info.data(), 0); }, NTE_FAIL,
                  lines + "ERROR CPSetHashParam: talvik_initHash failed for HP_HMAC_INFO, ret=9", {initHash(3)});
}

TEST_F(CspHashTest, ACopyStartsAnEmptyDeviceHash) {
    const HCRYPTHASH hash = create(CALG_SHA_384);
    EXPECT_TRUE(CPHashData(prov, hash, bytes(3).data(), 3, 0));
    HCRYPTHASH copy = 0;
    DWORD reserved = 5;
    forgetSoFar();
    EXPECT_TRUE(CPDuplicateHash(prov, hash, &reserved, 0, &copy));
    owned(copy);
    char line[128];
    std::snprintf(line, sizeof line, "DEBUG CPDuplicateHash - source: 0x%llx duplicate: 0x%llx",
                  static_cast<unsigned long long>(hash), static_cast<unsigned long long>(copy));
    EXPECT_EQ(log.entries(), Lines({"DEBUG CPDuplicateHash", line}));
    EXPECT_EQ(scripted::takeCalls(), Lines({initHash(4)}));
    EXPECT_EQ(std::tuple(csp::hashOf(copy)->mechanismCopy, csp::hashOf(copy)->mechanism, csp::hashOf(copy)->hashSize),
              std::tuple(0u, 4u, 48u));
    EXPECT_TRUE(CPHashData(prov, copy, bytes(1).data(), 1, 0));
    EXPECT_EQ(scripted::takeCalls(), Lines({"talvik_updateHash(#2, 01, 1, null)"}));

    EXPECT_TRUE(CPSetHashParam(prov, hash, HP_HASHVAL, bytes(48, 7).data(), 0));
    EXPECT_TRUE(CPDuplicateHash(prov, hash, nullptr, 0, &copy));
    owned(copy);
    expectSuccess(get(copy, HP_HASHVAL, 48), paramLog(HP_HASHVAL, 4));
    EXPECT_EQ(delivered(), bytes(48, 7));
}

TEST_F(CspHashTest, CopyRefusals) {
    const HCRYPTHASH hash = create();
    HCRYPTHASH copy = UNTOUCHED_HANDLE;
    const auto refused = refusalsOf("CPDuplicateHash", CPDuplicateHash);
    const std::string text = "CPDuplicateHash: invalid parameter - phHash=";
    refused(ERROR_INVALID_PARAMETER, text + "0 hProv=" + number(prov) + " hHash=" + number(hash), prov, hash, nullptr,
            1, nullptr);
    refused(ERROR_INVALID_PARAMETER, text + number(&copy) + " hProv=0 hHash=" + number(hash), 0, hash, nullptr, 0,
            &copy);
    refused(ERROR_INVALID_PARAMETER, text + number(&copy) + " hProv=" + number(prov) + " hHash=0", prov, 0, nullptr, 0,
            &copy);
    refused(NTE_BAD_FLAGS, "CPDuplicateHash: invalid dwFlags=0x00000010", invalid, notValid, nullptr, 0x10, &copy);
    refused(NTE_BAD_UID, "CPDuplicateHash: invalid or uninitialized context", invalid, notValid, nullptr, 0, &copy);
    refused(NTE_BAD_HASH, "CPDuplicateHash: source hash is NULL or invalid", prov, notValid, nullptr, 0, &copy);
    scripted::next("talvik_initHash", {.status = 1});
    expectFailure([&] { return CPDuplicateHash(prov, hash, nullptr, 0, &copy); }, NTE_FAIL,
                  {"DEBUG CPDuplicateHash", "ERROR CPDuplicateHash: talvik_initHash failed, ret=1"}, {initHash(3)});
    EXPECT_EQ(copy, UNTOUCHED_HANDLE);
}

TEST_F(CspHashTest, DestructionAsksNothingOfTheDevice) {
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CPCreateHash(prov, CALG_SHA1, 0, 0, &hash));
    const auto refused = refusalsOf("CPDestroyHash", CPDestroyHash);
    const std::string context = "CPDestroyHash: invalid or uninitialized context";
    refused(NTE_BAD_UID, context, 0, hash);
    refused(NTE_BAD_UID, context, invalid, 0);
    refused(NTE_BAD_HASH, "CPDestroyHash: pHashHandle is NULL", prov, 0);
    csp::hashOf(hash)->isValid = 0;
    expectSuccess([&] { return CPDestroyHash(prov, hash); }, {"DEBUG CPDestroyHash"});
}

TEST(Pieces, GoOnWhereTheLastEndedUntilOneIsRefused) {
    const BYTE data[10] = {};
    std::vector<std::pair<std::ptrdiff_t, int>> seen;
    const auto use = [&](const BYTE* piece, int length) {
        seen.emplace_back(piece - data, length);
        return seen.size() == 5 ? 7 : 0;
    };
    EXPECT_EQ(csp::inPieces(data, sizeof data, use, 4), 0);
    EXPECT_EQ(csp::inPieces(data, sizeof data, use, 4), 7);
    EXPECT_THAT(seen, ElementsAre(Pair(0, 4), Pair(4, 4), Pair(8, 2), Pair(0, 4), Pair(4, 4)));
}

}  // namespace
