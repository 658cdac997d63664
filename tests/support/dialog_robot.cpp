#include "support/dialog_robot.h"

#include <algorithm>

namespace {

constexpr int PIN_EDIT = 1001;
constexpr int MESSAGE_TEXT = 0xFFFF;
constexpr DWORD POLL_MILLISECONDS = 5;
constexpr UINT ANSWER_MILLISECONDS = 5000;      // for one message sent to a window
constexpr ULONGLONG OPEN_MILLISECONDS = 10000;  // for a window to go after it was answered

LRESULT send(HWND window, UINT message, WPARAM wParam = 0, LPARAM lParam = 0) {
    DWORD_PTR result = 0;
    SendMessageTimeoutA(window, message, wParam, lParam, SMTO_ABORTIFHUNG, ANSWER_MILLISECONDS, &result);
    return static_cast<LRESULT>(result);
}

std::string textOf(HWND window) {
    char text[1024] = {};
    send(window, WM_GETTEXT, sizeof text, reinterpret_cast<LPARAM>(text));
    return text;
}

// The open windows with this caption; they are handled outside the enumeration.
std::vector<HWND> dialogsOf(DWORD processId) {
    struct Search {
        DWORD processId;
        std::vector<HWND> found;
    } search{processId, {}};
    EnumWindows(
        [](HWND window, LPARAM parameter) -> BOOL {
            auto& search = *reinterpret_cast<Search*>(parameter);
            char className[16] = {};
            DWORD owner = 0;
            GetWindowThreadProcessId(window, &owner);
            GetClassNameA(window, className, sizeof className);
            if (owner == search.processId && std::string(className) == "#32770" && IsWindowVisible(window))
                search.found.push_back(window);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

}  // namespace

void PinDialog::type(const std::string& pin) const {
    send(control(PIN_EDIT), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin.c_str()));
}

bool PinDialog::loginEnabled() const {
    return IsWindowEnabled(control(IDOK));
}

void PinDialog::login() const {
    if (loginEnabled())
        send(window_, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(control(IDOK)));
}

void PinDialog::cancel() const {
    send(window_, WM_COMMAND, MAKEWPARAM(IDCANCEL, BN_CLICKED), reinterpret_cast<LPARAM>(control(IDCANCEL)));
}

void PinDialog::close() const {
    send(window_, WM_CLOSE);
}

DialogRobot::DialogRobot(DWORD processId) : processId_(processId), thread_([this] { run(); }) {}

std::vector<std::string> DialogRobot::finish() {
    {
        const std::lock_guard guard(lock_);
        stop_ = true;
    }
    if (thread_.joinable())
        thread_.join();
    return told();
}

void DialogRobot::run() {
    for (;;) {
        {
            const std::lock_guard guard(lock_);
            if (stop_)
                return;
        }
        look();
        Sleep(POLL_MILLISECONDS);
    }
}

void DialogRobot::look() {
    const std::vector<HWND> windows = dialogsOf(processId_);
    std::erase_if(open_, [&](const auto& entry) { return std::ranges::find(windows, entry.first) == windows.end(); });
    for (HWND window : windows) {
        const auto handled = open_.find(window);
        if (handled == open_.end()) {
            appear(window);
        } else if (GetTickCount64() - handled->second > OPEN_MILLISECONDS) {
            const std::lock_guard guard(lock_);
            complaints_.push_back("a window stayed open after its answer: " + textOf(window));
            EndDialog(window, 0);
            send(window, WM_CLOSE);
            handled->second = GetTickCount64();
        }
    }
}

void DialogRobot::appear(HWND window) {
    const std::string caption = textOf(window);
    if (caption == "Verify User Pin")
        answerPin(window);
    else if (caption == "Talvik")
        dismissMessage(window);
}

void DialogRobot::answerPin(HWND window) {
    const Answer answer = nextAnswer();
    open_[window] = GetTickCount64();
    answer(PinDialog(window));
}

void DialogRobot::dismissMessage(HWND window) {
    {
        const std::lock_guard guard(lock_);
        seen_.push_back(textOf(GetDlgItem(window, MESSAGE_TEXT)));
    }
    open_[window] = GetTickCount64();
    send(window, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), reinterpret_cast<LPARAM>(GetDlgItem(window, IDOK)));
}
