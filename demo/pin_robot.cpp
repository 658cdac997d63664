#include "pin_robot.h"

#include <chrono>

namespace demo {

namespace {

constexpr char dialogClass[] = "#32770";
constexpr char pinDialogCaption[] = "Verify User Pin";
constexpr char messageCaption[] = "Talvik";
constexpr int pinEdit = 1001;
constexpr int messageText = 0xFFFF;  // the static control of a message box
constexpr auto lookEvery = std::chrono::milliseconds(20);

std::string windowText(HWND window) {
    char text[256] = "";
    GetWindowTextA(window, text, sizeof text);
    return text;
}

bool isOwnDialog(HWND window) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    char windowClass[16] = "";
    GetClassNameA(window, windowClass, sizeof windowClass);
    return process == GetCurrentProcessId() && std::string(windowClass) == dialogClass && IsWindowVisible(window);
}

}  // namespace

PinRobot::PinRobot(std::string pin) : pin_(std::move(pin)), thread_([this] { watch(); }) {}

PinRobot::~PinRobot() {
    stop_ = true;
    thread_.join();
}

std::string PinRobot::refusal() const {
    const std::lock_guard lock(mutex_);
    return refusal_;
}

void PinRobot::watch() {
    while (!stop_) {
        EnumWindows(visit, reinterpret_cast<LPARAM>(this));
        std::this_thread::sleep_for(lookEvery);
    }
}

BOOL CALLBACK PinRobot::visit(HWND window, LPARAM self) {
    auto& robot = *reinterpret_cast<PinRobot*>(self);
    if (!isOwnDialog(window)) {
        return TRUE;
    }
    const std::string caption = windowText(window);
    if (caption == pinDialogCaption) {
        robot.answerDialog(window);
    }
    if (caption == messageCaption) {
        robot.acknowledge(window);
    }
    return TRUE;
}

void PinRobot::answerDialog(HWND dialog) {
    if (dialog == lastAnswered_)
        return;  // it is on its way out
    if (!refusal().empty()) {
        PostMessageA(dialog, WM_COMMAND, IDCANCEL, 0);
        return;
    }
    SetDlgItemTextA(dialog, pinEdit, pin_.c_str());
    if (!IsWindowEnabled(GetDlgItem(dialog, IDOK))) {
        return;
    }
    lastAnswered_ = dialog;
    ++dialogsAnswered_;
    PostMessageA(GetDlgItem(dialog, IDOK), BM_CLICK, 0, 0);
}

void PinRobot::acknowledge(HWND messageBox) {
    {
        const std::lock_guard lock(mutex_);
        refusal_ = windowText(GetDlgItem(messageBox, messageText));
    }
    PostMessageA(messageBox, WM_COMMAND, IDOK, 0);
}

}  // namespace demo
