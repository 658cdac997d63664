// The token's statuses: what its operations answer, and what talvik.exe tells the user.
#pragma once

#include <stdexcept>

#include "token/device_library.h"

namespace virtual_token {

enum class Status : int {
    Ok = TALVIK_STATUS_OK,
    InvalidArgument = 1,
    NoSuchDevice = 2,
    DeviceDetached = 3,
    NoSuchObject = 4,
    WrongPin = 5,
    PinLocked = 6,
    PinRequired = 7,
    UsageForbidden = 8,
    BufferTooSmall = 9,
    Unsupported = 10,
    BadKey = 11,
    BadSignature = 12,
    BadData = 13,
    BadInitialVector = 14,
    BadCertificate = 15,
    BadHashHandle = 16,
    AlreadyExists = 17,
    StorageFailure = 18,
    OutOfMemory = 19,
    InternalError = 20,
    TimeMismatch = TALVIK_STATUS_TIME_MISMATCH,
    SignOnExpired = TALVIK_STATUS_SIGN_ON_EXPIRED,
};

struct StatusFacts {
    Status status;
    const char* name;
    const char* text;
};

const StatusFacts& factsOf(Status status);

// Thrown inside the token and turned into its status at the boundary.
class TokenError : public std::runtime_error {
  public:
    explicit TokenError(Status status) : std::runtime_error(factsOf(status).text), status_(status) {}
    TokenError(Status status, const std::string& text) : std::runtime_error(text), status_(status) {}

    Status status() const { return status_; }

  private:
    Status status_;
};

inline void require(bool condition, Status status) {
    if (!condition) {
        throw TokenError(status);
    }
}

}  // namespace virtual_token
