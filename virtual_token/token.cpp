#include "token.h"

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>
#include <shared_mutex>

#include "gcrypt_objects.h"
#include "status.h"
#include "system_text.h"

namespace virtual_token {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t masterKeyLength = 32;
constexpr std::size_t saltLength = 16;
constexpr unsigned scryptCost = 1u << 14;  // 16 MiB and some 50 ms a guess

// How long a list stays where it was after the token has changed: callers copy it at once.
constexpr auto listLifetime = std::chrono::seconds(5);

// What was read of a token's file.
template <class Value>
Value existing(std::optional<Value> value) {
    if (!value) {
        throw TokenError(Status::NoSuchDevice);
    }
    return *std::move(value);
}

void requirePinRule(std::string_view pin) {
    require(pin.size() >= shortestPin && pin.size() <= longestPin, Status::InvalidArgument);
}

SecretBytes deriveKey(std::string_view pin, const PinSlot& slot) {
    startGcrypt();
    SecretBytes key(masterKeyLength);
    check(gcry_kdf_derive(pin.data(), pin.size(), GCRY_KDF_SCRYPT, static_cast<int>(slot.cost), slot.salt.data(),
                          slot.salt.size(), 1, key.size(), key.data()));
    return key;
}

PinSlot makeSlot(std::string_view pin, int attempts, ByteView masterKey, const std::string& masterKeyId) {
    requirePinRule(pin);
    PinSlot slot;
    slot.cost = scryptCost;
    slot.salt = randomBytes(saltLength);
    slot.attemptsAllowed = slot.attemptsLeft = attempts;
    slot.sealedMasterKey = seal(deriveKey(pin, slot), masterKey, masterKeyId);
    return slot;
}

void requireRoomInFile(std::uint64_t size) {
    if (size > largestFile) {
        throw TokenError(Status::StorageFailure, "the token file is larger than a token's can be");
    }
}

Bytes pinVerifier(ByteView salt, std::string_view pin) {
    startGcrypt();
    Bytes digest(32);
    gcry_buffer_t parts[2] = {{0, 0, salt.size(), const_cast<unsigned char*>(salt.data())},
                              {0, 0, pin.size(), const_cast<char*>(pin.data())}};
    check(gcry_md_hash_buffers(GCRY_MD_SHA256, 0, digest.data(), parts, 2));
    return digest;
}

}  // namespace

void Token::create(const std::wstring& path, TokenState state, std::string_view pin, std::string_view adminPin) {
    Token token(path, state.id);
    const FileLock lock(token.siblingPath(L".lock"));
    require(!stampOf(path), Status::AlreadyExists);
    SecretBytes masterKey(masterKeyLength);
    fillRandom(masterKey.data(), masterKey.size());
    state.masterKeyId = toHex(randomBytes(saltLength));
    state.userPin = makeSlot(pin, userPinAttempts, masterKey, state.masterKeyId);
    state.adminPin = makeSlot(adminPin, adminPinAttempts, masterKey, state.masterKeyId);
    token.store(std::move(state), std::make_shared<ObjectSet>(TokenObjects()));
}

void Token::remove() {
    const FileLock lock(siblingPath(L".lock"));
    require(stampOf(path_).has_value(), Status::NoSuchDevice);
    for (const wchar_t* extension : {L".json", L".json.new", L".session", L".session.new"}) {
        deleteFile(siblingPath(extension));
    }
}

// --- the file's content ---

std::wstring Token::siblingPath(const wchar_t* extension) const {
    return path_.substr(0, path_.rfind(L'.')) + extension;
}

SnapshotPointer Token::snapshot() {
    const FileStamp stamp = existing(stampOf(path_));
    requireRoomInFile(stamp.size);
    {
        const std::shared_lock guard(lock_);
        if (current_ && current_->stamp == stamp) {
            return current_;
        }
        if (unreadable_ && unreadable_->stamp == stamp) {
            throw unreadable_->error;
        }
    }
    return install(load());
}

SnapshotPointer Token::attachedSnapshot() {
    SnapshotPointer now = snapshot();
    require(now->state.attached, Status::DeviceDetached);
    return now;
}

Snapshot Token::load() {
    Snapshot fresh;
    const SecretBytes content = existing(readFile(path_, fresh.stamp));
    TokenObjects objects;
    try {
        readTokenText({reinterpret_cast<const char*>(content.data()), content.size()}, fresh.state, objects);
        require(fresh.state.id == id_, Status::NoSuchDevice);  // the file system takes "t1" for "T1"
    } catch (const TokenError& problem) {
        const TokenError error(problem.status(), utf8(path_) + ": " + problem.what());
        const std::lock_guard guard(lock_);
        unreadable_ = std::make_unique<const Unreadable>(Unreadable{fresh.stamp, error});
        throw error;
    }
    fresh.objects = std::make_shared<ObjectSet>(std::move(objects));
    return fresh;
}

SnapshotPointer Token::install(Snapshot fresh) {
    const std::lock_guard guard(lock_);
    if (current_ && current_->objects != fresh.objects) {
        if (current_->objects->objects() == fresh.objects->objects()) {
            fresh.objects = current_->objects;  // its lists and its index serve on
        } else {
            retired_.emplace_back(Clock::now(), current_->objects);
        }
    }
    while (!retired_.empty() && retired_.front().first + listLifetime < Clock::now()) {
        retired_.pop_front();
    }
    forget(fresh);
    current_ = std::make_shared<const Snapshot>(std::move(fresh));
    return current_;
}

// Drops the secrets that the new state no longer grants.
void Token::forget(const Snapshot& fresh) {
    const TokenState& state = fresh.state;
    if (!state.attached || (current_ && current_->state.masterKeyId != state.masterKeyId)) {
        login_.reset();
        session_.reset();
        privateKeys_.clear();
    }
    if (login_ && login_->pinSalt != state.userPin.salt) {
        login_.reset();
    }
    if (state.signOn != SignOn::On) {
        session_.reset();
    }
    std::erase_if(privateKeys_, [&fresh](const auto& entry) { return fresh.objects->keyPair(entry.first) == nullptr; });
}

SnapshotPointer Token::store(TokenState state, std::shared_ptr<ObjectSet> objects) {
    const std::string text = writeTokenText(state, objects->objects());
    requireRoomInFile(text.size());
    if (state.signOn != SignOn::On) {
        // Of the sign-on that ends, or of one that was cut off: they open the token without its PIN.
        deleteFile(siblingPath(L".session"));
        deleteFile(siblingPath(L".session.new"));
    }
    const FileStamp stamp = replaceFile(path_, viewOf(text), false);
    return install({std::move(state), std::move(objects), stamp});
}

template <class Change>
auto Token::locked(Change change) {
    const FileLock lock(siblingPath(L".lock"));
    return change(*snapshot());
}

void Token::changeState(const std::function<void(TokenState&)>& change) {
    locked([&](const Snapshot& now) {
        TokenState state = now.state;
        change(state);
        store(std::move(state), now.objects);
    });
}

void Token::changeObjects(const std::function<void(TokenObjects&)>& change) {
    locked([&](const Snapshot& now) {
        TokenObjects objects = now.objects->objects();
        change(objects);
        store(now.state, std::make_shared<ObjectSet>(std::move(objects)));
    });
}

// --- logging in ---

MasterKey Token::rememberedKey(const TokenState& state, std::string_view pin) {
    std::shared_ptr<const Login> login;
    {
        const std::shared_lock guard(lock_);
        login = login_;
    }
    if (!login || login->pinSalt != state.userPin.salt) {
        return nullptr;
    }
    return equalInConstantTime(login->verifier, pinVerifier(login->pinSalt, pin)) ? login->masterKey : nullptr;
}

void Token::rememberLogin(const TokenState& state, std::string_view pin, MasterKey key) {
    const Bytes& salt = state.userPin.salt;
    auto login = std::make_shared<const Login>(Login{salt, pinVerifier(salt, pin), std::move(key)});
    const std::lock_guard guard(lock_);
    login_ = std::move(login);
}

// The attempt is charged in the file before the PIN is tested: killing the process wins nothing.
MasterKey Token::testPin(PinSlot TokenState::*slot, std::string_view pin) {
    return locked([&](const Snapshot& now) {
        TokenState state = now.state;
        PinSlot& tested = state.*slot;
        require(tested.attemptsLeft > 0, Status::PinLocked);
        --tested.attemptsLeft;
        store(state, now.objects);
        MasterKey key;
        try {
            key = std::make_shared<const SecretBytes>(
                unseal(deriveKey(pin, tested), tested.sealedMasterKey, state.masterKeyId));
        } catch (const TokenError& error) {
            require(error.status() == Status::BadData, error.status());
            throw TokenError(tested.attemptsLeft > 0 ? Status::WrongPin : Status::PinLocked);
        }
        tested.attemptsLeft = tested.attemptsAllowed;
        store(state, now.objects);
        return key;
    });
}

void Token::restoreAttempts() {
    changeState([](TokenState& state) {
        if (state.userPin.attemptsLeft > 0) {  // locked meanwhile: only the administrator may
            state.userPin.attemptsLeft = state.userPin.attemptsAllowed;
        }
    });
}

MasterKey Token::unlockIn(const SnapshotPointer& now, std::string_view pin) {
    const TokenState& state = now->state;
    if (pin.empty()) {
        MasterKey key = sessionKey(state);
        require(key != nullptr, Status::PinRequired);
        return key;
    }
    requirePinRule(pin);
    require(state.userPin.attemptsLeft > 0, Status::PinLocked);
    if (MasterKey key = rememberedKey(state, pin)) {
        if (state.userPin.attemptsLeft < state.userPin.attemptsAllowed) {
            restoreAttempts();
        }
        return key;
    }
    MasterKey key = testPin(&TokenState::userPin, pin);
    rememberLogin(state, pin, key);
    return key;
}

MasterKey Token::unlock(std::string_view pin) {
    return unlockIn(attachedSnapshot(), pin);
}

MasterKey Token::openedMasterKey() {
    const SnapshotPointer now = attachedSnapshot();
    if (MasterKey key = sessionKey(now->state)) {
        return key;
    }
    const std::shared_lock guard(lock_);
    require(login_ != nullptr && now->state.userPin.attemptsLeft > 0, Status::PinRequired);
    return login_->masterKey;
}

void Token::validatePin(std::string_view pin) {
    const SnapshotPointer now = attachedSnapshot();
    require(!now->state.clockSkewed, Status::TimeMismatch);
    requirePinRule(pin);
    unlockIn(now, pin);
    if (now->state.signOn == SignOn::Expired) {
        endSignOn(SignOn::Off);
    }
}

void Token::setPin(PinSlot TokenState::*slot, std::string_view newPin, const SecretBytes& masterKey) {
    changeState([&](TokenState& state) {
        state.*slot = makeSlot(newPin, (state.*slot).attemptsAllowed, masterKey, state.masterKeyId);
    });
}

void Token::changePin(std::string_view pin, std::string_view newPin) {
    requirePinRule(newPin);
    attachedSnapshot();
    setPin(&TokenState::userPin, newPin, *testPin(&TokenState::userPin, pin));
}

void Token::unblock(std::string_view adminPin, std::string_view newPin) {
    requirePinRule(newPin);
    attachedSnapshot();
    setPin(&TokenState::userPin, newPin, *testPin(&TokenState::adminPin, adminPin));
}

void Token::changeAdminPin(std::string_view adminPin, std::string_view newAdminPin) {
    requirePinRule(newAdminPin);
    attachedSnapshot();
    setPin(&TokenState::adminPin, newAdminPin, *testPin(&TokenState::adminPin, adminPin));
}

// --- single sign-on ---

// The session file holds the master key in clear, for its owner alone: that is what lets other processes in without
// the PIN, and a convenience of a development token.
void Token::signOn(std::string_view pin) {
    validatePin(pin);
    const MasterKey key = unlock(pin);
    locked([&](const Snapshot& now) {
        const nlohmann::ordered_json session = {{"masterKeyId", now.state.masterKeyId}, {"masterKey", toBase64(*key)}};
        replaceFile(siblingPath(L".session"), viewOf(session.dump()), true);
        TokenState state = now.state;
        state.signOn = SignOn::On;
        store(std::move(state), now.objects);
    });
}

void Token::endSignOn(SignOn how) {
    locked([&](const Snapshot& now) {
        TokenState state = now.state;
        state.signOn = how;
        store(std::move(state), now.objects);
    });
}

MasterKey Token::sessionKey(const TokenState& state) {
    if (state.signOn != SignOn::On) {
        return nullptr;
    }
    {
        const std::shared_lock guard(lock_);
        if (session_) {
            return session_;
        }
    }
    FileStamp stamp;
    const std::optional<SecretBytes> content = readFile(siblingPath(L".session"), stamp);
    const auto session = nlohmann::json::parse(content ? *content : SecretBytes(), nullptr, false);
    if (!session.is_object() || session.value("masterKeyId", "") != state.masterKeyId) {
        return nullptr;
    }
    const Bytes decoded = fromBase64(session.value("masterKey", ""));
    require(decoded.size() == masterKeyLength, Status::StorageFailure);
    const std::lock_guard guard(lock_);
    session_ = std::make_shared<const SecretBytes>(decoded.begin(), decoded.end());
    return session_;
}

bool Token::signedOn() {
    const SnapshotPointer now = attachedSnapshot();
    return sessionKey(now->state) != nullptr;
}

}  // namespace virtual_token
