#include "token/pin_turn.h"

#include <map>
#include <mutex>
#include <optional>

#include "log/level.h"

namespace talvik {
namespace {

thread_local int questionsOfThisThread = 0;

// A system mutex for each token that was ever asked about: one can wait for it and for messages at once, and a thread
// that ends while it asks does not keep it. Never closed; null when the system has none left.
HANDLE mutexOf(const std::string& deviceId) {
    static std::mutex& lock = *new std::mutex;
    static auto& mutexes = *new std::map<std::string, HANDLE>;
    const std::lock_guard guard(lock);
    HANDLE& mutex = mutexes[deviceId];
    if (mutex == nullptr) {
        mutex = CreateMutexA(nullptr, FALSE, nullptr);
    }
    return mutex;
}

using QuitCode = std::optional<WPARAM>;

// Dispatches what waits in the thread's queue. After a WM_QUIT, whose code is kept, sent messages alone.
void serveMessages(QuitCode& quit) {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, quit ? PM_REMOVE | PM_QS_SENDMESSAGE : PM_REMOVE)) {
        if (message.message == WM_QUIT) {
            quit = message.wParam;
            return;
        }
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

// Whether the mutex is this thread's now; not when the system refuses to wait.
bool waitServingMessages(HANDLE mutex) {
    const ApplicationPause pause;
    QuitCode quit;
    DWORD result = WAIT_FAILED;
    do {
        serveMessages(quit);
        result =
            MsgWaitForMultipleObjectsEx(1, &mutex, INFINITE, quit ? QS_SENDMESSAGE : QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    } while (result == WAIT_OBJECT_0 + 1);
    if (quit) {
        PostQuitMessage(static_cast<int>(*quit));
    }
    return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED_0;
}

}  // namespace

PinTurn::PinTurn(const std::string& deviceId) {
    if (questionsOfThisThread == 0) {
        const HANDLE mutex = mutexOf(deviceId);
        if (mutex != nullptr && waitServingMessages(mutex)) {
            taken_ = mutex;
        }
    }
    ++questionsOfThisThread;
}

PinTurn::~PinTurn() {
    --questionsOfThisThread;
    if (taken_ != nullptr) {
        ReleaseMutex(taken_);
    }
}

}  // namespace talvik
