// The robot of support/dialog_robot.h in front of the stand-in desktop. It answers on the thread that shows the dialog,
// so nothing can hang; a dialog that its answer leaves open is a test failure here too.
#include "support/dialog_robot.h"

#include <gtest/gtest.h>

#include "stand_in/desktop.h"

void PinDialog::type(const std::string& pin) const {
    desktop::type(window_, pin);
}
bool PinDialog::loginEnabled() const {
    return desktop::isLoginEnabled(window_);
}
void PinDialog::login() const {
    if (loginEnabled())
        desktop::press(window_, IDOK);
}
void PinDialog::cancel() const {
    desktop::press(window_, IDCANCEL);
}
void PinDialog::close() const {
    desktop::close(window_);
}

namespace {

// One robot sits there at a time; what it hears it hands to the robot's own operations.
struct SeatedRobot : desktop::User {
    std::function<void(HWND)> onDialog;
    std::function<void(const std::string&)> onMessage;

    void dialog(HWND window) override { onDialog(window); }
    void message(const std::string& caption, const std::string& text) override {
        EXPECT_EQ(caption, "Talvik");
        onMessage(text);
    }
};
SeatedRobot seated;

}  // namespace

DialogRobot::DialogRobot(DWORD processId) : processId_(processId) {
    seated.onDialog = [this](HWND window) { answerPin(window); };
    seated.onMessage = [this](const std::string& text) {
        const std::lock_guard guard(lock_);
        seen_.push_back(text);
    };
    desktop::seat(&seated);
}

std::vector<std::string> DialogRobot::finish() {
    desktop::seat(nullptr);
    return told();
}

void DialogRobot::answerPin(HWND window) {
    nextAnswer()(PinDialog(window));
    if (desktop::isOpen(window)) {
        const std::lock_guard guard(lock_);
        complaints_.push_back("a window stayed open after its answer");
    }
}
