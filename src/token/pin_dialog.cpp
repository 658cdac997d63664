#include "token/pin_dialog.h"

#include <string>

#include "log/log.h"
#include "module.h"
#include "resources/resource.h"

namespace talvik {
namespace {

constexpr LRESULT shortestPin = 4;
constexpr LRESULT longestPin = 63;

PinAnswer& answerOf(HWND dialog) {
    return *reinterpret_cast<PinAnswer*>(GetWindowLongPtrA(dialog, DWLP_USER));
}

void enableLogin(HWND dialog, bool enable) {
    EnableWindow(GetDlgItem(dialog, IDOK), enable ? TRUE : FALSE);
}

void onPinChanged(HWND dialog) {
    const LRESULT length = SendDlgItemMessageA(dialog, IDC_USER_PIN, WM_GETTEXTLENGTH, 0, 0);
    enableLogin(dialog, length >= shortestPin && length <= longestPin);
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
            GetDlgItemTextA(dialog, IDC_USER_PIN, answerOf(dialog).pin, PinAnswer::capacity);
            break;
        case IDCANCEL:
            answerOf(dialog).clear();
            break;
        default:
            break;
    }
    endDialog(dialog);
    return TRUE;
}

INT_PTR CALLBACK pinDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_INITDIALOG:
            SetWindowLongPtrA(dialog, DWLP_USER, lParam);
            answerOf(dialog).dialogWasShown = true;
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

INT_PTR runDialog(HWND owner, PinAnswer& answer) {
    const ApplicationPause pause;
    return DialogBoxParamA(moduleInstance(), MAKEINTRESOURCEA(IDD_VERIFY_USER_PIN), IsWindow(owner) ? owner : nullptr,
                           pinDialogProcedure, reinterpret_cast<LPARAM>(&answer));
}

}  // namespace

// The result alone does not tell: an owner that is gone gives 0 too, like a dialog that was closed.
void showPinDialog(HWND owner, PinAnswer& answer) {
    logDebug("Password dialog show window");
    answer.clear();
    answer.dialogWasShown = false;
    logDebug("Password dialog show window before");
    const INT_PTR result = runDialog(owner, answer);
    logDebug("Password dialog show window after");
    if (result != 0 || !answer.dialogWasShown) {
        logError("Password dialog creation failed : ", static_cast<long long>(result));
    }
}

SecretText getEnteredPin(const PinAnswer& answer) {
    return SecretText(answer.pin);
}

void showTokenMessage(const char* message) {
    const ApplicationPause pause;
    MessageBoxA(nullptr, message, "Talvik", MB_OK);
}

}  // namespace talvik
