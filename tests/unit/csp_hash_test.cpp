#include "csp/hash.h"
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
        made_.push_back(hash);
        return hash;
    }
    HCRYPTHASH owned(HCRYPTHASH hash) {
        made_.push_back(hash);
        return hash;
    }

    Call get(HCRYPTHASH hash, DWORD param, Bytes& value, DWORD& size) {
        return [=, this, &value, &size] { return CPGetHashParam(prov, hash, param, value.data(), &size, 0); };
    }

    const HCRYPTPROV prov;
    DWORD size = UNTOUCHED;
    BYTE buffer[64] = {};

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
    const std::string parameters = "CPCreateHash: invalid parameter - phHash=";
    std::vector<Refusal> refusals = {{[&] { return CPCreateHash(prov, CALG_SHA1, 0, 1, nullptr); },
                                      ERROR_INVALID_PARAMETER, parameters + "0 hProv=" + number(prov)},
                                     {[&] { return CPCreateHash(0, CALG_SHA1, 0, 1, &hash); }, ERROR_INVALID_PARAMETER,
                                      parameters + number(&hash) + " hProv=0"},
                                     {[&] { return CPCreateHash(invalid, CALG_MD5, 0, 0x0000ABC1, &hash); },
                                      NTE_BAD_FLAGS, "CPCreateHash: invalid dwFlags=0x0000ABC1"},
                                     {[&] { return CPCreateHash(invalid, CALG_MD5, 0, 0, &hash); }, NTE_BAD_UID,
                                      "CPCreateHash: context not initialized"}};
    const std::pair<ALG_ID, const char*> unsupported[] = {
        {CALG_MD5, "00008003"}, {CALG_HMAC, "00008009"}, {CALG_SSL3_SHAMD5, "00008008"}, {0, "00000000"},
        {CALG_MAC, "00008005"}, {2, "00000002"},         {0xFFFF800C, "FFFF800C"}};
    for (const auto& [id, digits] : unsupported)
        refusals.push_back({[&, id = id] { return CPCreateHash(prov, id, 0, 0, &hash); }, NTE_BAD_ALGID,
                            std::string("CPCreateHash: unsupported Algid=0x") + digits});
    expectRefusals("CPCreateHash", refusals);
    EXPECT_EQ(hash, UNTOUCHED_HANDLE);
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
    const std::string context = "CPHashData: invalid or uninitialized context";
    expectRefusals("CPHashData", {{[&] { return CPHashData(0, 0, data.data(), 3, 0); }, NTE_BAD_UID, context},
                                  {[&] { return CPHashData(invalid, hash, data.data(), 3, 0); }, NTE_BAD_UID, context},
                                  {[&] { return CPHashData(prov, 0, data.data(), 3, 0); }, NTE_BAD_HASH,
                                   "CPHashData: pHashHandle is NULL"}});
}

TEST_F(CspHashTest, ParameterRefusals) {
    const HCRYPTHASH hash = create();
    csp::HASH_CONTEXT unmade;
    const auto notValid = reinterpret_cast<HCRYPTHASH>(&unmade);
    const std::string get = "CPGetHashParam: invalid parameter - hProv=",
                      set = "CPSetHashParam: invalid parameter - hProv=";
    const std::string getInvalid = "CPGetHashParam: context not initialized or hash not valid";
    const std::string setInvalid = "CPSetHashParam: context not initialized or hash not valid";
    size = 64;
    expectRefusals(
        "CPGetHashParam",
        {{[&] { return CPGetHashParam(0, hash, HP_ALGID, buffer, &size, 0); }, ERROR_INVALID_PARAMETER,
          get + "0 hHash=" + number(hash) + " pcbDataLen=" + number(&size)},
         {[&] { return CPGetHashParam(prov, 0, HP_ALGID, buffer, &size, 0); }, ERROR_INVALID_PARAMETER,
          get + number(prov) + " hHash=0 pcbDataLen=" + number(&size)},
         {[&] { return CPGetHashParam(prov, hash, HP_ALGID, buffer, nullptr, 1); }, ERROR_INVALID_PARAMETER,
          get + number(prov) + " hHash=" + number(hash) + " pcbDataLen=0"},
         {[&] { return CPGetHashParam(invalid, hash, HP_ALGID, buffer, &size, 16); }, NTE_BAD_FLAGS,
          "CPGetHashParam: invalid dwFlags=0x00000010"},
         {[&] { return CPGetHashParam(invalid, hash, HP_ALGID, buffer, &size, 0); }, NTE_BAD_HASH, getInvalid},
         {[&] { return CPGetHashParam(prov, notValid, HP_ALGID, buffer, &size, 0); }, NTE_BAD_HASH, getInvalid},
         {[&] { return CPGetHashParam(prov, hash, 3, buffer, &size, 0); }, NTE_BAD_TYPE,
          "CPGetHashParam: unsupported dwParam=0x00000003"},
         {[&] { return CPGetHashParam(prov, hash, 0xABCDEF12, nullptr, &size, 0); }, NTE_BAD_TYPE,
          "CPGetHashParam: unsupported dwParam=0xABCDEF12"},
         {[&] { return CPGetHashParam(prov, hash, HP_HMAC_INFO, buffer, &size, 0); }, NTE_BAD_TYPE,
          "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC"}});
    expectRefusals("CPSetHashParam",
                   {{[&] { return CPSetHashParam(0, hash, HP_HASHVAL, buffer, 0); }, ERROR_INVALID_PARAMETER,
                     set + "0 hHash=" + number(hash) + " pbData=" + number(buffer)},
                    {[&] { return CPSetHashParam(prov, 0, HP_HASHVAL, buffer, 0); }, ERROR_INVALID_PARAMETER,
                     set + number(prov) + " hHash=0 pbData=" + number(buffer)},
                    {[&] { return CPSetHashParam(prov, hash, HP_HASHVAL, nullptr, 1); }, ERROR_INVALID_PARAMETER,
                     set + number(prov) + " hHash=" + number(hash) + " pbData=0"},
                    {[&] { return CPSetHashParam(invalid, hash, HP_HASHVAL, buffer, 2); }, NTE_BAD_FLAGS,
                     "CPSetHashParam: invalid dwFlags=0x00000002"},
                    {[&] { return CPSetHashParam(invalid, hash, HP_HASHVAL, buffer, 0); }, NTE_BAD_HASH, setInvalid},
                    {[&] { return CPSetHashParam(prov, notValid, HP_HASHVAL, buffer, 0); }, NTE_BAD_HASH, setInvalid},
                    {[&] { return CPSetHashParam(prov, hash, HP_ALGID, buffer, 0); }, NTE_BAD_TYPE,
                     "CPSetHashParam: unsupported dwParam=0x00000001"}});
    EXPECT_EQ(log.entries(),
              Lines({"DEBUG CPSetHashParam", "DEBUG Set hash param dwParam : 1", "DEBUG Set hash param dwFlags : 0",
                     "ERROR CPSetHashParam: unsupported dwParam=0x00000001"}));
    EXPECT_EQ(size, 64u);
}

// HP_ALGID and HP_HASHSIZE: a 32-bit answer, whatever room there is.
TEST_F(CspHashTest, WordParametersFollowTheSizeRule) {
    for (const Algorithm& row : algorithms) {
        const HCRYPTHASH hash = create(row.id);
        const std::tuple<DWORD, DWORD, const char*> parameters[] = {{HP_ALGID, row.id, "HP_ALGID"},
                                                                    {HP_HASHSIZE, row.size, "HP_HASHSIZE"}};
        for (const auto& [param, expected, name] : parameters) {
            for (const DWORD room : {0, 1, 2, 3}) {
                Bytes value = filled(4, 0xCD);
                size = room;
                expectFailure(get(hash, param, value, size), ERROR_MORE_DATA,
                              paramLog(param, row.mechanism) +
                                  Lines{std::string("ERROR CPGetHashParam: ") + name + " buffer too small"});
                EXPECT_EQ(size, 4u);
                EXPECT_EQ(value, filled(4, 0xCD));
            }
            size = UNTOUCHED;
            expectSuccess([&, param = param] { return CPGetHashParam(prov, hash, param, nullptr, &size, 0); },
                          paramLog(param, row.mechanism));
            EXPECT_EQ(size, 4u);
            Bytes value = filled(8, 0xCD);
            size = 8;
            Lines lines = paramLog(param, row.mechanism);
            if (param == HP_HASHSIZE)
                lines.push_back("DEBUG Get hash param hashSize : " + number(row.size));
            expectSuccess(get(hash, param, value, size), lines + "DEBUG Get hash param success");
            EXPECT_EQ(size, 4u);
            DWORD answered;
            std::memcpy(&answered, value.data(), 4);
            EXPECT_EQ(answered, expected);
            EXPECT_EQ(value[4], 0xCD);
        }
    }
}

TEST_F(CspHashTest, TheDigestIsFinishedOnceAndThenCached) {
    for (const Algorithm& row : algorithms) {
        scripted::reset();
        const HCRYPTHASH hash = create(row.id);
        const Bytes digest = bytes(row.size, 0x10);
        scripted::always("talvik_finalHash", {.output = digest});
        size = UNTOUCHED;
        expectSuccess([&] { return CPGetHashParam(prov, hash, HP_HASHVAL, nullptr, &size, 0); },
                      paramLog(HP_HASHVAL, row.mechanism));
        EXPECT_EQ(size, row.size);
        for (const bool finalised : {false, true}) {
            Bytes value = filled(10, 0xCD);
            size = 10;
            expectFailure(get(hash, HP_HASHVAL, value, size), ERROR_MORE_DATA,
                          paramLog(HP_HASHVAL, row.mechanism) +
                              Lines{std::string("ERROR CPGetHashParam: HP_HASHVAL buffer too small for ") +
                                    (finalised ? "cached hash value" : "finalized hash")},
                          finalised ? Lines{} : Lines{finalHash("#1", row.size)});
            EXPECT_EQ(size, row.size);
            EXPECT_EQ(value, filled(10, 0xCD));
        }
        Bytes value = filled(row.size + 1, 0xCD);
        size = row.size + 1;
        expectSuccess(get(hash, HP_HASHVAL, value, size), paramLog(HP_HASHVAL, row.mechanism));
        EXPECT_EQ(size, row.size);
        EXPECT_EQ(Bytes(value.begin(), value.end() - 1), digest);
        EXPECT_EQ(value.back(), 0xCD);
        // Data that comes later reaches the device and changes nothing here.
        EXPECT_TRUE(CPHashData(prov, hash, value.data(), 1, 0));
        EXPECT_EQ(csp::hashOf(hash)->hashValueLen, row.size);
    }
}

TEST_F(CspHashTest, AFailedDigestIsAskedForAgain) {
    const HCRYPTHASH hash = create();
    scripted::next("talvik_finalHash", {.status = 3});
    scripted::always("talvik_finalHash", {.output = bytes(32)});
    Bytes value(size = 32);
    expectFailure(get(hash, HP_HASHVAL, value, size), NTE_FAIL,
                  paramLog(HP_HASHVAL, 3) + "ERROR CPGetHashParam: talvik_finalHash failed, ret=3",
                  {finalHash("#1", 32)});
    EXPECT_EQ(std::tuple(size, csp::hashOf(hash)->isFinalized), std::tuple(32u, 0));
    expectSuccess(get(hash, HP_HASHVAL, value, size), paramLog(HP_HASHVAL, 3), {finalHash("#1", 32)});
    EXPECT_EQ(value, bytes(32));
}

// A digest of a length that cannot be is a failure of the operation: nothing is cached, nothing overrun.
TEST_F(CspHashTest, ALyingDigestLengthIsAFailure) {
    for (const int lie : {-1, INT_MIN, 129, 4096, INT_MAX}) {
        SCOPED_TRACE(lie);
        const HCRYPTHASH hash = create();
        scripted::next("talvik_finalHash", {.output = bytes(32), .length = lie});
        Bytes value = filled(200, 0xCD);
        size = 200;
        SetLastError(UNTOUCHED_ERROR);
        EXPECT_FALSE(get(hash, HP_HASHVAL, value, size)());
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_FAIL));
        EXPECT_EQ(value, filled(200, 0xCD));
        EXPECT_LE(csp::hashOf(hash)->hashValueLen, 128u);
        EXPECT_EQ(csp::hashOf(hash)->isFinalized, 0);
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
    size = 64;
    EXPECT_FALSE(CPGetHashParam(prov, hash, HP_HMAC_INFO, buffer, &size, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_TYPE));
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
    Bytes value(48);
    size = 48;
    expectSuccess(get(copy, HP_HASHVAL, value, size), paramLog(HP_HASHVAL, 4));
    EXPECT_EQ(value, bytes(48, 7));
}

TEST_F(CspHashTest, CopyRefusals) {
    const HCRYPTHASH hash = create();
    csp::HASH_CONTEXT unmade;
    const auto notValid = reinterpret_cast<HCRYPTHASH>(&unmade);
    HCRYPTHASH copy = UNTOUCHED_HANDLE;
    const std::string text = "CPDuplicateHash: invalid parameter - phHash=";
    expectRefusals("CPDuplicateHash",
                   {{[&] { return CPDuplicateHash(prov, hash, nullptr, 1, nullptr); }, ERROR_INVALID_PARAMETER,
                     text + "0 hProv=" + number(prov) + " hHash=" + number(hash)},
                    {[&] { return CPDuplicateHash(0, hash, nullptr, 0, &copy); }, ERROR_INVALID_PARAMETER,
                     text + number(&copy) + " hProv=0 hHash=" + number(hash)},
                    {[&] { return CPDuplicateHash(prov, 0, nullptr, 0, &copy); }, ERROR_INVALID_PARAMETER,
                     text + number(&copy) + " hProv=" + number(prov) + " hHash=0"},
                    {[&] { return CPDuplicateHash(invalid, notValid, nullptr, 0x10, &copy); }, NTE_BAD_FLAGS,
                     "CPDuplicateHash: invalid dwFlags=0x00000010"},
                    {[&] { return CPDuplicateHash(invalid, notValid, nullptr, 0, &copy); }, NTE_BAD_UID,
                     "CPDuplicateHash: invalid or uninitialized context"},
                    {[&] { return CPDuplicateHash(prov, notValid, nullptr, 0, &copy); }, NTE_BAD_HASH,
                     "CPDuplicateHash: source hash is NULL or invalid"}});
    scripted::next("talvik_initHash", {.status = 1});
    expectFailure([&] { return CPDuplicateHash(prov, hash, nullptr, 0, &copy); }, NTE_FAIL,
                  {"DEBUG CPDuplicateHash", "ERROR CPDuplicateHash: talvik_initHash failed, ret=1"}, {initHash(3)});
    EXPECT_EQ(copy, UNTOUCHED_HANDLE);
}

TEST_F(CspHashTest, DestructionAsksNothingOfTheDevice) {
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CPCreateHash(prov, CALG_SHA1, 0, 0, &hash));
    const std::string context = "CPDestroyHash: invalid or uninitialized context";
    expectRefusals("CPDestroyHash",
                   {{[&] { return CPDestroyHash(0, hash); }, NTE_BAD_UID, context},
                    {[&] { return CPDestroyHash(invalid, 0); }, NTE_BAD_UID, context},
                    {[&] { return CPDestroyHash(prov, 0); }, NTE_BAD_HASH, "CPDestroyHash: pHashHandle is NULL"}});
    csp::hashOf(hash)->isValid = 0;
    expectSuccess([&] { return CPDestroyHash(prov, hash); }, {"DEBUG CPDestroyHash"});
}

}  // namespace
