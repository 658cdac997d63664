#include "status.h"

#include <algorithm>
#include <iterator>

namespace virtual_token {
namespace {

constexpr StatusFacts facts[] = {
    {Status::Ok, "ok", "done"},
    {Status::InvalidArgument, "invalid-argument", "an argument is missing, negative or out of range"},
    {Status::NoSuchDevice, "no-such-token", "no token has this identifier"},
    {Status::DeviceDetached, "detached", "the token is not attached"},
    {Status::NoSuchObject, "no-such-object", "the token holds no such key or certificate"},
    {Status::WrongPin, "wrong-pin", "the PIN is wrong"},
    {Status::PinLocked, "pin-locked", "the PIN is locked; unblock it with the administrator's PIN"},
    {Status::PinRequired, "pin-required", "nobody is logged in: a PIN or a single sign-on is needed"},
    {Status::UsageForbidden, "usage-forbidden", "the key's usage does not allow this"},
    {Status::BufferTooSmall, "buffer-too-small", "the output does not fit into the buffer"},
    {Status::Unsupported, "unsupported", "the algorithm, key type or digest length is not supported"},
    {Status::BadKey, "bad-key", "the key is malformed or has the wrong size"},
    {Status::BadSignature, "bad-signature", "the signature is not valid"},
    {Status::BadData, "bad-data", "the data is malformed or was not made for this key"},
    {Status::BadInitialVector, "bad-iv", "the initialisation vector must have 16 bytes for CBC, none for ECB"},
    {Status::BadCertificate, "bad-certificate", "this is not a DER certificate of at most 3072 bytes"},
    {Status::BadHashHandle, "bad-hash-handle", "the hash handle is unknown or already finished"},
    {Status::AlreadyExists, "already-exists", "a token with this identifier exists already"},
    {Status::StorageFailure, "storage-failure", "the token file could not be read or written"},
    {Status::OutOfMemory, "out-of-memory", "not enough memory"},
    {Status::InternalError, "internal-error", "the token failed"},
    {Status::TimeMismatch, "time-mismatch", "the computer's clock disagrees with the token"},
    {Status::SignOnExpired, "sign-on-expired", "the single sign-on has expired"},
};

}  // namespace

const StatusFacts& factsOf(Status status) {
    const auto* found = std::find_if(std::begin(facts), std::end(facts),
                                     [status](const StatusFacts& row) { return row.status == status; });
    return found == std::end(facts) ? factsOf(Status::InternalError) : *found;
}

}  // namespace virtual_token
