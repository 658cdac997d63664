#include "stand_in/desktop.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

#include "resources/resource.h"

namespace desktop {
namespace {

struct Dialog;

struct Control {
    Dialog* dialog = nullptr;
    bool isEnabled = true;
};

struct Dialog {
    DLGPROC procedure = nullptr;
    std::string pin;
    Control login{this};
    Control edit{this};
    bool isOpen = true;
    INT_PTR result = 0;
    LONG_PTR ofApplication = 0;  // DWLP_USER
};

std::atomic<User*> seated{nullptr};

Dialog& dialogOf(HWND window) {
    return *reinterpret_cast<Dialog*>(window);
}
HWND handleOf(const void* object) {
    return reinterpret_cast<HWND>(const_cast<void*>(object));
}

void send(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam = 0) {
    dialogOf(dialog).procedure(dialog, message, wParam, lParam);
}

}  // namespace

User* seat(User* user) {
    return seated.exchange(user);
}

void type(HWND dialog, const std::string& pin) {
    dialogOf(dialog).pin = pin;
    send(dialog, WM_COMMAND, MAKEWPARAM(IDC_USER_PIN, EN_CHANGE));
}

bool isLoginEnabled(HWND dialog) {
    return dialogOf(dialog).login.isEnabled;
}

void press(HWND dialog, WORD button) {
    send(dialog, WM_COMMAND, MAKEWPARAM(button, BN_CLICKED));
}

void close(HWND dialog) {
    send(dialog, WM_CLOSE, 0);
}

bool isOpen(HWND dialog) {
    return dialogOf(dialog).isOpen;
}

}  // namespace desktop

using namespace desktop;

// The resource is the program's; another module has none.
INT_PTR WINAPI DialogBoxParamA(HINSTANCE instance, LPCSTR, HWND, DLGPROC procedure, LPARAM lParam) {
    if (instance != GetModuleHandleA(nullptr)) {
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return -1;
    }
    Dialog dialog;
    dialog.procedure = procedure;
    const HWND window = handleOf(&dialog);
    send(window, WM_INITDIALOG, 0, lParam);
    if (User* const user = seated) {
        user->dialog(window);
    } else {
        press(window, IDCANCEL);
    }
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return dialog.result;
}

BOOL WINAPI EndDialog(HWND window, INT_PTR result) {
    dialogOf(window).isOpen = false;
    dialogOf(window).result = result;
    return TRUE;
}

// The only word that a dialog keeps for its application.
LONG_PTR WINAPI SetWindowLongPtrA(HWND window, INT, LONG_PTR value) {
    return std::exchange(dialogOf(window).ofApplication, value);
}
LONG_PTR WINAPI GetWindowLongPtrA(HWND window, INT) {
    return dialogOf(window).ofApplication;
}

HWND WINAPI GetDlgItem(HWND window, INT id) {
    Dialog& dialog = dialogOf(window);
    return id == IDOK ? handleOf(&dialog.login) : id == IDC_USER_PIN ? handleOf(&dialog.edit) : nullptr;
}

BOOL WINAPI EnableWindow(HWND control, BOOL enable) {
    reinterpret_cast<Control*>(control)->isEnabled = enable != FALSE;
    return TRUE;
}

// The only message that a control is sent asks for the length of its text.
LRESULT WINAPI SendDlgItemMessageA(HWND window, INT, UINT, WPARAM, LPARAM) {
    return static_cast<LRESULT>(dialogOf(window).pin.size());
}

UINT WINAPI GetDlgItemTextA(HWND window, INT, LPSTR buffer, INT size) {
    const std::string& pin = dialogOf(window).pin;
    const auto length = std::min(pin.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, pin.data(), length);
    buffer[length] = '\0';
    return static_cast<UINT>(length);
}

BOOL WINAPI SetDlgItemTextA(HWND window, INT, LPCSTR text) {
    dialogOf(window).pin = text;
    return TRUE;
}

INT WINAPI MessageBoxA(HWND, LPCSTR text, LPCSTR caption, UINT) {
    if (User* const user = seated) {
        user->message(caption, text);
    }
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return IDOK;
}

// The application has no windows, and so no messages.
BOOL WINAPI IsWindow(HWND) {
    return FALSE;
}
BOOL WINAPI PeekMessageW(LPMSG, HWND, UINT, UINT, UINT) {
    return FALSE;
}
BOOL WINAPI TranslateMessage(const MSG*) {
    return FALSE;
}
LRESULT WINAPI DispatchMessageW(const MSG*) {
    return 0;
}
void WINAPI PostQuitMessage(INT) {}

// A mutex is all that is waited for.
HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL, LPCSTR) {
    return new std::mutex;
}
DWORD WINAPI MsgWaitForMultipleObjectsEx(DWORD, const HANDLE* mutex, DWORD, DWORD, DWORD) {
    static_cast<std::mutex*>(*mutex)->lock();
    return WAIT_OBJECT_0;
}
BOOL WINAPI ReleaseMutex(HANDLE mutex) {
    static_cast<std::mutex*>(mutex)->unlock();
    return TRUE;
}

// A test that looks at the real window is not run here, but it is in a source that is.
HWND WINAPI GetWindow(HWND, UINT) {
    return nullptr;
}
INT WINAPI GetWindowTextA(HWND, LPSTR, INT) {
    return 0;
}
LONG WINAPI GetWindowLongA(HWND, INT) {
    return 0;
}
HWND WINAPI CreateWindowExA(DWORD, LPCSTR, LPCSTR, DWORD, INT, INT, INT, INT, HWND, HMENU, HINSTANCE, LPVOID) {
    return nullptr;
}
BOOL WINAPI DestroyWindow(HWND) {
    return FALSE;
}
DWORD WINAPI GetWindowThreadProcessId(HWND, LPDWORD) {
    return 0;
}
BOOL WINAPI PostThreadMessageA(DWORD, UINT, WPARAM, LPARAM) {
    return FALSE;
}
LRESULT WINAPI SendMessageTimeoutA(HWND, UINT, WPARAM, LPARAM, UINT, UINT, PDWORD_PTR) {
    return 0;
}
LRESULT WINAPI SendMessageA(HWND, UINT, WPARAM, LPARAM) {
    return 0;
}
