// Whose turn it is to ask for a token's PIN.
#pragma once

#include <windows.h>

#include <string>

namespace talvik {

// One thread at a time asks for one token's PIN; questions for different tokens do not wait for each other. Who waits
// serves the messages of its thread meanwhile, sent and posted ones, so that no window of the application freezes and
// the one who asks may have one of them as owner. A WM_QUIT is put back when the wait is over.
//
// A thread that is asking already never waits: what its windows call meanwhile may have to go before it can end.
class PinTurn {
  public:
    explicit PinTurn(const std::string& deviceId);
    ~PinTurn();
    PinTurn(const PinTurn&) = delete;
    PinTurn& operator=(const PinTurn&) = delete;

  private:
    HANDLE taken_ = nullptr;
};

}  // namespace talvik
