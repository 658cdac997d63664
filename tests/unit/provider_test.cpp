#include "unit/provider_test.h"

#include <map>
#include <numeric>
#include <ranges>

#include "module.h"
#include "token/device_monitor.h"

using namespace testing;

void attachToken(std::vector<TalvikKeyPair> keyPairs, std::vector<TalvikCertificate> certificates,
                 std::vector<TalvikSymmetricKey> aesKeys) {
    scripted::attach({{DEVICE, {scripted::tokenInfo("one"), keyPairs, certificates, aesKeys}}});
}

void attachTokens(std::vector<TalvikKeyPair> keyPairs, bool loggedIn) {
    scripted::Token first{scripted::tokenInfo("one", loggedIn), std::move(keyPairs), {}, {}};
    scripted::Token second{scripted::tokenInfo("two"), {}, {}, {}};
    scripted::attach({{DEVICE, std::move(first)}, {"T2", std::move(second)}});
}

ProviderTest::ProviderTest() {
    setLogLevel(3);
    scripted::reset();
    attachTokens({});
    talvik::forgetEverything();
    talvik::containerQueried = false;
    talvik::setSharedIv({});
    offer(room);
    forgetSoFar();
}

void ProviderTest::TearDown() {
    recording::close();
    takeOver();
    for (const auto& all : {owned_, kept_})
        for (const auto& [handle, release] : all)
            release(handle);
    robot.finish();
}

HCRYPTPROV ProviderTest::acquire(const std::string& container, DWORD flags) {
    takeOver();
    EXPECT_TRUE(CPAcquireContext(&prov, container.empty() ? nullptr : container.c_str(), flags, someTable()));
    forgetSoFar();
    keep(prov, [](HCRYPTPROV acquired) { return CPReleaseContext(acquired, 0); });
    return prov;
}

void ProviderTest::forgetSoFar() {
    log.mark();
    scripted::takeCalls();
}

void ProviderTest::own(const std::string& name, ULONG_PTR& place, std::function<long(ULONG_PTR)> release) {
    places_.push_back({name, &place, std::move(release)});
}

void ProviderTest::keep(ULONG_PTR handle, std::function<long(ULONG_PTR)> release) {
    kept_.emplace(handle, std::move(release));
}

void ProviderTest::ownHash(const std::string& name, HCRYPTHASH& place) {
    own(name, place, [this](HCRYPTHASH hash) { return CPDestroyHash(prov, hash); });
}

void ProviderTest::ownKey(const std::string& name, HCRYPTKEY& place) {
    own(name, place, [this](HCRYPTKEY key) { return CPDestroyKey(prov, key); });
}

void ProviderTest::takeOver() {
    for (const auto& [name, place, release] : places_)
        if (*place != 0 && *place != UNTOUCHED_HANDLE)
            owned_.emplace(*place, release);
}

std::string ProviderTest::textOf(long result) const {
    const DWORD error = GetLastError();
    return (result ? "TRUE" : "FALSE") + (error == UNTOUCHED_ERROR ? "" : ' ' + recording::codeName(error));
}

void ProviderTest::show(const std::string& name, const Shown& call, Where where) {
    takeOver();
    const std::string stateBefore = state ? state() : "";
    std::vector<ULONG_PTR> before;
    for (const Place& place : places_)
        before.push_back(*place.handle);
    forgetSoFar();
    offer(room);
    SetLastError(UNTOUCHED_ERROR);
    std::string outcome = textOf(call());
    outcome += written();
    const std::string logged = logAndCalls();
    for (std::size_t i = 0; i < places_.size(); ++i)
        if (const ULONG_PTR now = *places_[i].handle; now != before[i])
            outcome += ' ' + places_[i].name + (now == 0 ? "=0" : "=new");
    takeOver();
    if (const std::string now = state ? state() : ""; now != stateBefore)
        outcome += " ~ " + now;
    recording::add({name, outcome + windows() + logged, where});
}

void ProviderTest::showLies(const std::string& operation, const Shown& call, std::initializer_list<int> tooLong,
                            Where where) {
    std::vector<std::pair<std::string, scripted::Outcome>> lies = {{"status 13", {13}},
                                                                   {"length -1", {0, bytes(3), -1}}};
    for (const int length : tooLong)
        lies.push_back({"length " + number(length), {0, bytes(3), length}});
    for (const auto& [told, lie] : lies) {
        scripted::next(operation, lie);
        show(operation + " says " + told, call, where);
    }
}

void ProviderTest::showRenewal(const std::string& operation, const Shown& call, Where where) {
    robot.enters("5678").enters("5678").cancels().cancels();
    for (const int times : {1, 2, 1, 0}) {
        for (int i = 0; i < times; ++i)
            scripted::next(operation, {.status = 49, .length = 3});
        show("expired " + number(times), call, where);
    }
}

// What a call left in the place of what it was offered.
std::string ProviderTest::written() const {
    const auto last = std::find_if(data.rbegin(), data.rend(), [](unsigned char byte) { return byte != 0xCD; });
    std::string text = size != offered_ || last != data.rend() ? " size=" + number(size) : "";
    if (last != data.rend())
        text += " data=" + recording::shortened(hex({data.begin(), last.base()}));
    return text;
}

std::string ProviderTest::windows() {
    std::string text;
    for (const Lines seen = robot.seen(); windowsSeen_ < seen.size(); ++windowsSeen_)
        text += " [" + seen[windowsSeen_] + "]";
    return text;
}

// ERROR lines begin with '!'. Addresses go by the names of what is there.
std::string ProviderTest::logAndCalls() const {
    std::string text;
    for (const std::string& entry : log.entries())
        text += entry.starts_with("DEBUG ")   ? " | " + entry.substr(6)
                : entry.starts_with("ERROR ") ? " | !" + entry.substr(6)
                                              : " | " + entry;
    for (const std::string& asked : scripted::takeCalls())
        text += " > " + asked.substr(std::strlen("talvik_"));
    std::map<std::string, std::string> names = {{number(&size), "&size"},
                                                {number(data.data()), "data"},
                                                {number(invalid), "invalid"},
                                                {number(static_cast<const void*>(someTable())), "table"}};
    const auto goesBy = [&](ULONG_PTR handle, const std::string& name) {
        char digits[32];
        std::snprintf(digits, sizeof digits, "0x%llx", static_cast<unsigned long long>(handle));
        names[number(handle)] = names[digits] = name;
    };
    if (prov != 0)
        goesBy(prov, "prov");
    for (const Place& place : places_) {
        goesBy(reinterpret_cast<ULONG_PTR>(place.handle), '&' + place.name);
        if (*place.handle != 0)
            goesBy(*place.handle, place.name);
    }
    return recording::readable(text, names);
}

Facts& Facts::operator()(const char* name, std::uint64_t value) {
    return (*this)(name, value == 0 ? "" : number(value));
}

Facts& Facts::operator()(const char* name, const std::string& text) {
    if (!text.empty())
        text_ += (text_.empty() ? "" : " ") + std::string(name) + '=' + text;
    return *this;
}

// An identifier of nothing but zeros is none.
Facts& Facts::operator()(const char* name, const unsigned char* field, std::size_t length) {
    return (*this)(name, recording::shortened(hex(content(field, length))));
}

std::string factsOfHash(HCRYPTHASH handle) {
    if (handle == 0 || handle == UNTOUCHED_HANDLE)
        return "";
    const talvik::csp::HASH_CONTEXT& hash = *talvik::csp::hashOf(handle);
    return Facts()("mechanism", hash.mechanism)("copy", hash.mechanismCopy)("size", hash.hashSize)(
        "valid", hash.isValid)("finalized", hash.isFinalized)("value", hash.hashValue, hash.hashValueLen)(
        "signKey", hash.signKeyId, hash.signKeyIdLen);
}

std::string factsOfKey(HCRYPTKEY handle) {
    if (handle == 0 || handle == UNTOUCHED_HANDLE)
        return "";
    const talvik::csp::KEY_HANDLE& key = *talvik::csp::keyOf(handle);
    return Facts()("id", key.keyId, key.keyIdLen)("alg", key.algId)("usage", key.keyUsage)("bits", key.keyBits)(
        "alias", key.keyAlias, key.keyAliasLen)("label", key.label)("flag", key.storageFlag)(
        "public", key.publicKey, key.publicKeyLen)("aes", key.aesKey, static_cast<std::size_t>(key.aesKeyLen));
}

void ProviderTest::offer(DWORD room) {
    data.assign(4096, 0xCD);
    size = offered_ = room;
}

Bytes ProviderTest::delivered() const {
    const auto end = data.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(size, data.size()));
    EXPECT_TRUE(std::all_of(end, data.end(), [](unsigned char byte) { return byte == 0xCD; }));
    return {data.begin(), end};
}

bool ProviderTest::isOnlyTold(DWORD needed) const {
    return size == needed && data == filled(data.size(), 0xCD);
}

VTableProvStruc* someTable() {
    static int table;
    return reinterpret_cast<VTableProvStruc*>(&table);
}

Bytes bytes(std::size_t count, unsigned char first) {
    Bytes value(count);
    std::iota(value.begin(), value.end(), first);
    return value;
}

Bytes filled(std::size_t count, unsigned char value) {
    return Bytes(count, value);
}

std::string hex(const Bytes& value) {
    std::string text;
    for (const unsigned char byte : value) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

Bytes cut(const Bytes& value, std::size_t length) {
    return content(value.data(), length);
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes reversed(const Bytes& value) {
    return {value.rbegin(), value.rend()};
}

Bytes words(std::initializer_list<std::uint32_t> values) {
    Bytes blob;
    for (const std::uint32_t value : values)
        for (int i = 0; i < 4; ++i)
            blob.push_back(static_cast<unsigned char>(value >> 8 * i));
    return blob;
}

TalvikSymmetricKey wrappingKey(std::uint32_t type, unsigned char fill, unsigned char idFill, std::int32_t idLength) {
    TalvikSymmetricKey key = {};
    std::ranges::fill(key.identifier, fill);
    std::ranges::fill(key.keyId, idFill);
    key.keyIdLength = idLength;
    key.keyType = type;
    key.storageFlag = fill & 1;
    return key;
}

Bytes content(const unsigned char* field, std::size_t length) {
    return {field, field + length};
}

std::string number(const void* pointer) {
    return std::to_string(reinterpret_cast<std::uintptr_t>(pointer));
}

// The resources of the provider are linked into this program; the monitor runs from the first test to the last.
int main(int argc, char** argv) {
    InitGoogleTest(&argc, argv);
    useOwnTemporaryFolder();
    talvik::recordModuleInstance(GetModuleHandleA(nullptr));
    talvik::startDeviceMonitor();
    const int result = RUN_ALL_TESTS();
    recording::save();
    talvik::stopDeviceMonitor();
    return result;
}
