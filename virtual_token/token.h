// One virtual token, as this process sees it: the current content of its file, who is logged in, and the keys in use.
// Every operation may be called by several threads at once; errors are thrown as TokenError.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "asymmetric_key.h"
#include "object_set.h"
#include "srw_lock.h"
#include "status.h"
#include "token_data.h"
#include "token_file.h"

namespace virtual_token {

inline constexpr std::size_t shortestPin = 4;
inline constexpr std::size_t longestPin = 63;
inline constexpr int userPinAttempts = 3;
inline constexpr int adminPinAttempts = 10;

// The content of a token file at one moment.
struct Snapshot {
    TokenState state;
    std::shared_ptr<ObjectSet> objects;
    FileStamp stamp;
};
using SnapshotPointer = std::shared_ptr<const Snapshot>;
using MasterKey = std::shared_ptr<const SecretBytes>;

class Token {
  public:
    // The file need not exist yet, or any more: then every operation throws NoSuchDevice.
    Token(std::wstring path, std::string id) : path_(std::move(path)), id_(std::move(id)) {}

    // Makes the token's file. `state` gives its identifier, label and firmware version.
    static void create(const std::wstring& path, TokenState state, std::string_view pin, std::string_view adminPin);

    // Takes the token's files away, damaged ones too, but for the lock.
    void remove();

    SnapshotPointer snapshot();          // the file's content, read anew only when the file has changed
    SnapshotPointer attachedSnapshot();  // throws DeviceDetached

    // --- logging in (token.cpp) ---
    // What the user's PIN opens. An empty PIN stands for the single sign-on. A wrong one costs an attempt.
    MasterKey unlock(std::string_view pin);
    // What this process has open: the single sign-on, or the last PIN that was right.
    MasterKey openedMasterKey();
    void validatePin(std::string_view pin);  // a login: also checks the clock, and ends an expired sign-on
    bool signedOn();                         // single sign-on is on and usable
    void changePin(std::string_view pin, std::string_view newPin);
    void unblock(std::string_view adminPin, std::string_view newPin);
    void changeAdminPin(std::string_view adminPin, std::string_view newAdminPin);
    void signOn(std::string_view pin);
    void endSignOn(SignOn how);  // Off or Expired

    // Changes the state alone.
    void changeState(const std::function<void(TokenState&)>& change);

    // --- objects (token_objects.cpp) ---
    KeyPairObject generateKeyPair(std::string_view pin, std::uint32_t type, std::uint32_t usage, std::string label);
    // `key` comes from elsewhere, with certificates of its own and of others; its usage follows the rules of
    // generateKeyPair. All of it is stored, or nothing. Throws AlreadyExists for a key that the token has.
    KeyPairObject importKeyPair(std::string_view pin, const GeneratedKey& key, std::uint32_t usage, std::string label,
                                const std::vector<Bytes>& certificates);
    void deleteKeyPair(std::string_view pin, const ObjectId& id);
    void deleteCertificate(std::string_view pin, const Bytes& der);
    void importCertificate(std::string_view pin, CertificateObject certificate);
    AesKeyObject importAesKey(std::string_view pin, AesKeyObject key, ByteView value);
    Bytes sign(std::string_view pin, const ObjectId& id, ByteView digest, bool pss);
    SecretBytes decrypt(std::string_view pin, const ObjectId& id, ByteView ciphertext);
    SecretBytes aesKeyValue(const ObjectId& id);

  private:
    // A PIN that was right in this process, as a salted digest, and the master key that it opened.
    struct Login {
        Bytes pinSalt;  // of the slot it was right for
        Bytes verifier;
        MasterKey masterKey;
    };
    // A version of the file that cannot be used, and why: it is not read again before it has changed.
    struct Unreadable {
        FileStamp stamp;
        TokenError error;
    };
    using PrivateKeyPointer = std::shared_ptr<const PrivateKey>;

    Snapshot load();
    SnapshotPointer install(Snapshot fresh);
    SnapshotPointer store(TokenState state, std::shared_ptr<ObjectSet> objects);
    // Under the file's lock: reads the file and gives its content to `change`.
    template <class Change>
    auto locked(Change change);
    void changeObjects(const std::function<void(TokenObjects&)>& change);

    MasterKey unlockIn(const SnapshotPointer& now, std::string_view pin);
    MasterKey rememberedKey(const TokenState& state, std::string_view pin);
    void rememberLogin(const TokenState& state, std::string_view pin, MasterKey key);
    void restoreAttempts();
    MasterKey testPin(PinSlot TokenState::*slot, std::string_view pin);
    void setPin(PinSlot TokenState::*slot, std::string_view newPin, const SecretBytes& masterKey);
    void forget(const Snapshot& fresh);
    std::wstring siblingPath(const wchar_t* extension) const;
    MasterKey sessionKey(const TokenState& state);
    KeyPairObject storeKeyPair(std::string_view pin, const KeyType& type, std::uint32_t usage, std::string label,
                               const std::function<GeneratedKey()>& make, const std::vector<Bytes>& certificates);
    PrivateKeyPointer privateKey(const TokenState& state, const KeyPairObject& key, const SecretBytes& masterKey);
    PrivateKeyPointer privateKeyFor(std::string_view pin, const ObjectId& id, std::uint32_t usage);

    const std::wstring path_;
    const std::string id_;
    SrwLock lock_;  // guards what follows; never held while a file is read, a PIN tested or a key used
    SnapshotPointer current_;
    std::unique_ptr<const Unreadable> unreadable_;
    std::shared_ptr<const Login> login_;
    MasterKey session_;
    std::unordered_map<ObjectId, PrivateKeyPointer, ObjectIdHash> privateKeys_;
    std::deque<std::pair<std::chrono::steady_clock::time_point, std::shared_ptr<ObjectSet>>> retired_;
};

}  // namespace virtual_token
