// Windows without windows: a dialog exists while its user answers it, on the thread that shows it.
#pragma once

#include <windows.h>

#include <string>

namespace desktop {

// Who sits in front of the screen. A dialog that is still open when dialog() returns is taken away.
class User {
  public:
    virtual void dialog(HWND dialog) = 0;
    virtual void message(const std::string& caption, const std::string& text) = 0;

  protected:
    ~User() = default;
};

// Null: nobody, who cancels every dialog. Returns the user before.
User* seat(User* user);

// What a user does at the PIN dialog and sees of it.
void type(HWND dialog, const std::string& pin);
bool isLoginEnabled(HWND dialog);
void press(HWND dialog, WORD button);
void close(HWND dialog);
bool isOpen(HWND dialog);

}  // namespace desktop
