// The operating system's slim lock, usable with the standard library's guards. Nothing to create, nothing to destroy.
#pragma once

#include <windows.h>

namespace virtual_token {

class SrwLock {
  public:
    SrwLock() = default;
    SrwLock(const SrwLock&) = delete;
    SrwLock& operator=(const SrwLock&) = delete;

    void lock() { AcquireSRWLockExclusive(&lock_); }
    void unlock() { ReleaseSRWLockExclusive(&lock_); }
    void lock_shared() { AcquireSRWLockShared(&lock_); }
    void unlock_shared() { ReleaseSRWLockShared(&lock_); }

  private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};

}  // namespace virtual_token
