// A device library to be derived from. Its operations do nothing and succeed: one token is attached, nobody needs to
// log in to it, and it holds no objects. Who derives from it overrides what he means and says which library it is.
//
// fake_library.cpp defines the 24 operations of token/device_library.h and hands each to one of the functions below.
#pragma once

#include <string>
#include <vector>

#include "token/device_library.h"

// One call of an operation. Its arguments become text when someone asks for them.
class Call {
  public:
    explicit Call(const char* operation) noexcept : operation_(operation) {}
    virtual ~Call() = default;

    const char* operation() const noexcept { return operation_; }

    // For example `talvik_initHash("T1", 3, out, null)`. Texts are quoted, input buffers are lower-case hexadecimal,
    // lengths are those on entry, outputs are "out".
    virtual std::string text() const = 0;

  private:
    const char* operation_;
};

// Each function returns the operation's status, if it has one. Bytes that are handed out are zero.
class FakeLibrary {
  public:
    virtual ~FakeLibrary() = default;

    // Of an operation that hands out nothing.
    virtual int status(const Call& call);

    // Writes `size` bytes into a buffer of the caller's, or into one that it allocates for him, and reports the size.
    virtual int fill(const Call& call, unsigned char* buffer, int size, int* length);
    virtual int allocate(const Call& call, unsigned char** buffer, int size, int* length);

    // Filling a buffer, where the size does not follow from the arguments: an RSA signature or ciphertext of 256 bytes,
    // a digest of 32; and random bytes, whose size is not reported.
    virtual int fillWithRsaResult(const Call& call, unsigned char* buffer, int* length);
    virtual int fillWithDigest(const Call& call, unsigned char* buffer, int* length);
    virtual int fillWithRandom(const Call& call, unsigned char* buffer, int size);

    virtual std::vector<std::string> devices(const Call& call);
    virtual TokenInfo tokenInfo(const Call& call, const char* deviceId);
    virtual std::vector<TalvikKeyPair>& keyPairs(const Call& call, const char* deviceId);
    virtual std::vector<TalvikCertificate>& certificates(const Call& call, const char* deviceId);
    virtual std::vector<TalvikSymmetricKey>& aesKeys(const Call& call, const char* deviceId);

    virtual int certificateDetails(const Call& call, const unsigned char* der, int derLength, CertificateDetails& out);
    virtual int validatePassword(const Call& call, int* remainingAttempts);
    virtual int generateKeyPair(const Call& call, TalvikKeyPair* key);
    virtual int importAesKey(const Call& call, TalvikSymmetricKey* key);
    virtual int initHash(const Call& call, void** hashHandle);
};

// The one that is called: each library that is made of this one defines it.
FakeLibrary& theLibrary();
