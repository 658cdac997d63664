// The window that asks for the token's PIN.
#pragma once

#include <windows.h>

#include "token/secret_text.h"

namespace talvik {

// Shows the dialog and returns when the user has closed it. `owner` may be null. What was entered is kept for
// getEnteredPin; it is empty after Cancel, after closing the window, or when the dialog could not be created.
void showPinDialog(HWND owner);

SecretText getEnteredPin();

// Nothing of the PIN stays here once whoever asked for it has it.
void forgetEnteredPin();

// Tells the user something in a message box of the product's caption.
void showTokenMessage(const char* message);

}  // namespace talvik
