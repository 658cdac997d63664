// The robot of support/dialog_robot.h in front of the stand-in desktop. It answers on the thread that shows the dialog,
// so nothing can hang; a dialog that its answer leaves open is a test failure here too.
#include "support/dialog_robot.h"

#include <gtest/gtest.h>
#include <utility>

#include "stand_in/desktop.h"

void PinDialog::type(const std::string& pin) const {
    desktop::type(window_, pin);
}
std::string PinDialog::typed() const {
    return desktop::typed(window_);
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

DialogRobot::~DialogRobot() {
    finish();
}

DialogRobot& DialogRobot::does(Answer answer) {
    const std::lock_guard guard(lock_);
    script_.push_back(std::move(answer));
    return *this;
}

DialogRobot& DialogRobot::enters(const std::string& pin) {
    return does([pin](const PinDialog& dialog) {
        dialog.type(pin);
        dialog.login();
    });
}

DialogRobot& DialogRobot::cancels() {
    return does([](const PinDialog& dialog) { dialog.cancel(); });
}

DialogRobot& DialogRobot::closes() {
    return does([](const PinDialog& dialog) { dialog.close(); });
}

std::vector<std::string> DialogRobot::seen() {
    const std::lock_guard guard(lock_);
    return seen_;
}

std::vector<std::string> DialogRobot::finish() {
    desktop::seat(nullptr);
    const std::lock_guard guard(lock_);
    for (const std::string& complaint : std::exchange(complaints_, {}))
        ADD_FAILURE() << complaint;
    if (!std::exchange(script_, {}).empty())
        ADD_FAILURE() << "a scripted PIN dialog never appeared";
    return seen_;
}

void DialogRobot::answerPin(HWND window) {
    Answer answer = [](const PinDialog& unexpected) { unexpected.cancel(); };
    {
        const std::lock_guard guard(lock_);
        seen_.push_back("PIN");
        if (script_.empty()) {
            complaints_.push_back("an unexpected PIN dialog appeared");
        } else {
            answer = std::move(script_.front());
            script_.pop_front();
        }
    }
    answer(PinDialog(window));
    if (desktop::isOpen(window)) {
        const std::lock_guard guard(lock_);
        complaints_.push_back("a window stayed open after its answer");
    }
}
