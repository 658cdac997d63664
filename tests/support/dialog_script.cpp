// What a robot is told to do and what it tells, whatever desktop it sits in front of.
#include <gtest/gtest.h>
#include <utility>

#include "support/dialog_robot.h"

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

DialogRobot::Answer DialogRobot::nextAnswer() {
    const std::lock_guard guard(lock_);
    seen_.push_back("PIN");
    if (script_.empty()) {
        complaints_.push_back("an unexpected PIN dialog appeared");
        return [](const PinDialog& unexpected) { unexpected.cancel(); };
    }
    Answer answer = std::move(script_.front());
    script_.pop_front();
    return answer;
}

std::vector<std::string> DialogRobot::told() {
    const std::lock_guard guard(lock_);
    for (const std::string& complaint : std::exchange(complaints_, {}))
        ADD_FAILURE() << complaint;
    if (!std::exchange(script_, {}).empty())
        ADD_FAILURE() << "a scripted PIN dialog never appeared";
    return seen_;
}
