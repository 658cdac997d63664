// The window that asks for the token's PIN.
#pragma once

#include <windows.h>

#include "token/secret_text.h"

namespace talvik {

// The answer to one question. It belongs to whoever asks, on the thread that asks; wiped when it goes.
struct PinAnswer {
    static constexpr int capacity = 256;

    char pin[capacity] = {};  // NUL-terminated; empty: none was entered
    bool dialogWasShown = false;

    PinAnswer() = default;
    PinAnswer(const PinAnswer&) = delete;
    PinAnswer& operator=(const PinAnswer&) = delete;
    ~PinAnswer() { clear(); }
    void clear() noexcept { SecureZeroMemory(pin, sizeof pin); }
};

// Shows the dialog and returns when the user has closed it. `owner` may be null, and counts as null when it is no
// window. The answer is empty after Cancel, after closing the window, or when the dialog could not be created.
void showPinDialog(HWND owner, PinAnswer& answer);

SecretText getEnteredPin(const PinAnswer& answer);

// Tells the user something in a message box of the product's caption.
void showTokenMessage(const char* message);

}  // namespace talvik
