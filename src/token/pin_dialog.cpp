#include "token/pin_dialog.h"

#include <mutex>
#include <string>
#include <utility>

#include "log/log.h"
#include "module.h"
#include "resources/resource.h"

namespace talvik {
namespace {

constexpr LRESULT shortestPin = 4;
constexpr LRESULT longestPin = 63;
constexpr int pinBufferSize = 256;

// One for the process. Two threads that prompt at the same moment share it, but each finds it whole.
std::mutex enteredPinLock;
SecretText enteredPin;

void setEnteredPin(SecretText pin) {
    const std::lock_guard guard(enteredPinLock);
    enteredPin = std::move(pin);
}

void enableLogin(HWND dialog, bool enable) {
    EnableWindow(GetDlgItem(dialog, IDOK), enable ? TRUE : FALSE);
}

void onPinChanged(HWND dialog) {
    const LRESULT length = SendDlgItemMessageA(dialog, IDC_USER_PIN, WM_GETTEXTLENGTH, 0, 0);
    enableLogin(dialog, length >= shortestPin && length <= longestPin);
}

void takePin(HWND dialog) {
    char pin[pinBufferSize] = {};
    GetDlgItemTextA(dialog, IDC_USER_PIN, pin, sizeof pin);
    setEnteredPin(SecretText(pin));
    SecureZeroMemory(pin, sizeof pin);
}

// The edit control releases its text as it is; what it releases then is as many asterisks.
void blotOut(HWND dialog) {
    const LRESULT length = SendDlgItemMessageA(dialog, IDC_USER_PIN, WM_GETTEXTLENGTH, 0, 0);
    const std::string filler(static_cast<std::size_t>(length), '*');
    SetDlgItemTextA(dialog, IDC_USER_PIN, filler.c_str());
}

void endDialog(HWND dialog) {
    blotOut(dialog);
    EndDialog(dialog, 0);
}

INT_PTR onCommand(HWND dialog, WORD control, WORD notification) {
    switch (control) {
        case IDC_USER_PIN:
            if (notification == EN_CHANGE) {
                onPinChanged(dialog);
            }
            return TRUE;
        case IDOK:
            takePin(dialog);
            break;
        case IDCANCEL:
            setEnteredPin({});
            break;
        default:
            break;
    }
    endDialog(dialog);
    return TRUE;
}

INT_PTR CALLBACK pinDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM) {
    switch (message) {
        case WM_INITDIALOG:
            enableLogin(dialog, false);
            return TRUE;
        case WM_COMMAND:
            return onCommand(dialog, LOWORD(wParam), HIWORD(wParam));
        case WM_CLOSE:
            endDialog(dialog);
            return TRUE;
        default:
            return FALSE;
    }
}

}  // namespace

void showPinDialog(HWND owner) {
    logDebug("Password dialog show window");
    setEnteredPin({});
    logDebug("Password dialog show window before");
    const INT_PTR result =
        DialogBoxParamA(moduleInstance(), MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN), owner, pinDialogProcedure, 0);
    logDebug("Password dialog show window after");
    if (result != 0) {
        logError("Password dialog creation failed : ", static_cast<long long>(result));
    }
}

SecretText getEnteredPin() {
    const std::lock_guard guard(enteredPinLock);
    return enteredPin;
}

void forgetEnteredPin() {
    setEnteredPin({});
}

void showTokenMessage(const char* message) {
    MessageBoxA(nullptr, message, "Talvik", MB_OK);
}

}  // namespace talvik
