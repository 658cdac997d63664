// Types the PIN into the provider's own PIN dialog, as a user at this computer would.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace demo {

// Watches this process's windows from a thread of its own for as long as it lives. Every PIN dialog gets the PIN.
// A message box of the provider is remembered and acknowledged; from then on PIN dialogs are cancelled, since the
// same PIN would only use up the token's remaining attempts.
class PinRobot {
  public:
    explicit PinRobot(std::string pin);
    ~PinRobot();
    PinRobot(const PinRobot&) = delete;
    PinRobot& operator=(const PinRobot&) = delete;

    int dialogsAnswered() const { return dialogsAnswered_; }
    std::string refusal() const;  // the provider's last message to the user; empty when there was none

  private:
    static BOOL CALLBACK visit(HWND window, LPARAM self);
    void watch();
    void answerDialog(HWND dialog);
    void acknowledge(HWND messageBox);

    const std::string pin_;
    std::atomic<bool> stop_{false};
    std::atomic<int> dialogsAnswered_{0};
    HWND lastAnswered_ = nullptr;
    mutable std::mutex mutex_;  // guards refusal_
    std::string refusal_;
    std::thread thread_;
};

}  // namespace demo
