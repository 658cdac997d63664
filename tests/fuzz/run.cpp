#include "fuzz/run.h"

#include "module.h"
#include "stand_in/desktop.h"
#include "token/session.h"
#include "token/shared_state.h"

namespace {

// Types a PIN into a few dialogs of each run and cancels the others, lest a library that always refuses keeps a run
// going for ever.
struct PatientUser : desktop::User {
    int patience = 0;

    void dialog(HWND window) override {
        if (patience-- > 0) {
            desktop::type(window, "1234");
            desktop::press(window, IDOK);
        } else {
            desktop::press(window, IDCANCEL);
        }
    }
    void message(const std::string&, const std::string&) override {}
};
PatientUser user;

void asFreshlyStarted() {
    talvik::forgetEverything();
    talvik::setSharedIv({});
    talvik::containerQueried = false;
    talvik::useHardwareRng = 1;
    user.patience = 3;
    lying::follow({});
}

// Logging is off: what is looked for is not in the log, and files would take most of the time.
void prepareProcess() {
    const DWORD silent = 0;
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Quorvel\\Talvik", "logLevel", REG_DWORD, &silent, sizeof silent);
    talvik::recordModuleInstance(GetModuleHandleA(nullptr));
    desktop::seat(&user);
}

}  // namespace

Run::Run(const std::uint8_t* data, std::size_t size) : input(data, size) {
    [[maybe_unused]] static const bool isPrepared = (prepareProcess(), true);
    asFreshlyStarted();
    const auto script = input.takeBytes(input.take<std::uint8_t>());
    script_ = Input(script.data(), script.size());
}

Run::~Run() {
    asFreshlyStarted();
}
