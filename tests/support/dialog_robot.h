// Answers the provider's windows: the PIN dialog ("Verify User Pin") and the message boxes ("Talvik").
//
// The robot lives in a thread of its own, which looks for the windows of one process every few milliseconds. It answers
// each PIN dialog with the next answer of its script and dismisses each message box after noting its text. Nothing can
// hang on a window: a PIN dialog that no answer was scripted for is cancelled, a window that stays open is closed after
// a bound, and both are test failures, told by finish().
//
// It needs no display: with Wine's null graphics driver (value Graphics = "null" of HKEY_CURRENT_USER, key
// Software/Wine/Drivers) windows exist and can be driven all the same. Without that value and without a display Wine
// creates no window at all; on a display without a window manager each closing window costs two seconds, unless the
// value Managed of the key Software/Wine/X11 Driver is "N".
#pragma once

#include <windows.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// An open PIN dialog. The calls reach into the thread that shows it and return when it has handled them.
class PinDialog {
  public:
    explicit PinDialog(HWND window) : window_(window) {}
    HWND window() const { return window_; }

    // Replaces the edit control's text as typing does, change notification included.
    void type(const std::string& pin) const;
    bool loginEnabled() const;
    void login() const;  // ends the dialog; nothing happens while the button is disabled
    void cancel() const;
    void close() const;

  private:
    HWND control(int id) const { return GetDlgItem(window_, id); }
    HWND window_;
};

class DialogRobot {
  public:
    using Answer = std::function<void(const PinDialog&)>;

    explicit DialogRobot(DWORD processId = GetCurrentProcessId());
    ~DialogRobot();
    DialogRobot(const DialogRobot&) = delete;
    DialogRobot& operator=(const DialogRobot&) = delete;

    // Script the next PIN dialog.
    DialogRobot& enters(const std::string& pin);
    DialogRobot& cancels();
    DialogRobot& closes();
    DialogRobot& does(Answer answer);

    // What has appeared so far, in order: "PIN" for a dialog, the text for a message box.
    std::vector<std::string> seen();

    // Stops looking, reports what went wrong as test failures (unanswered scripts included) and returns what appeared.
    std::vector<std::string> finish();

  private:
    Answer nextAnswer();              // notes the dialog
    std::vector<std::string> told();  // reports and returns, for finish()
    void run();
    void look();
    void appear(HWND window);
    void answerPin(HWND window);
    void dismissMessage(HWND window);

    const DWORD processId_;
    std::mutex lock_;
    std::deque<Answer> script_;
    std::vector<std::string> seen_;
    std::vector<std::string> complaints_;
    std::map<HWND, ULONGLONG> open_;  // handled windows and when they were
    bool stop_ = false;
    std::thread thread_;
};
