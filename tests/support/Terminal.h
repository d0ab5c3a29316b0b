#pragma once

#include <array>
#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vterm.h>

#include "support/WaitFor.h"

namespace TestSupport {

// A program on a terminal of its own (an xterm, by libvterm), read as a person would read its screen.
// Killed and reaped at the end of the scope at the latest.
class Terminal {
public:
    struct Size {
        int lines;
        int columns;
    };

    // `environment` holds "NAME=VALUE"; TERM is xterm-256color unless it says otherwise.
    Terminal(std::vector<std::string> words, Size size, std::vector<std::string> environment = {}) : mSize(size) {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        const winsize window = ToWindow(size);
        mPid = forkpty(&mMaster, nullptr, nullptr, &window);
        if (mPid == 0) {
            setenv("TERM", "xterm-256color", 1);
            for (std::string& variable : environment) {
                putenv(variable.data());
            }
            execv(argv[0], argv.data());
            _exit(126);
        }
        if (mPid < 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        mTerminal = vterm_new(size.lines, size.columns);
        vterm_set_utf8(mTerminal, 1);
        mScreen = vterm_obtain_screen(mTerminal);
        static const VTermScreenCallbacks CALLBACKS = MakeCallbacks();
        vterm_screen_set_callbacks(mScreen, &CALLBACKS, this);
        vterm_screen_enable_altscreen(mScreen, 1);
        vterm_screen_reset(mScreen, 1);
    }
    ~Terminal() {
        if (!mEnded) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        close(mMaster);
        vterm_free(mTerminal);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // The screen now, a line a line, without blanks at their ends.
    std::string Text() {
        Read();
        std::string text;
        for (int line = 0; line < mSize.lines; ++line) {
            text += Line(line) + "\n";
        }
        return text;
    }

    bool WaitForText(const std::string& part) {
        return WaitFor([&] { return Text().find(part) != std::string::npos; });
    }

    bool WaitUntilGone(const std::string& part) {
        return WaitFor([&] { return Text().find(part) == std::string::npos; });
    }

    // The number of the colour, of the 256, in which the text stands on the screen; -1 for the default,
    // -2 when it is not there.
    int ColourOf(const std::string& part) {
        Read();
        for (int line = 0; line < mSize.lines; ++line) {
            const std::size_t column = Line(line).find(part); // of a line of ASCII
            VTermScreenCell cell{};
            if (column != std::string::npos &&
                vterm_screen_get_cell(mScreen, {line, static_cast<int>(column)}, &cell) != 0) {
                return VTERM_COLOR_IS_INDEXED(&cell.fg) ? cell.fg.indexed.idx : -1;
            }
        }
        return -2;
    }

    // Everything that the program ever wrote.
    const std::string& Raw() const { return mRaw; }

    void Type(const std::string& keys) const {
        if (write(mMaster, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
            throw std::runtime_error("cannot type");
        }
    }

    void Resize(Size size) {
        Read();
        mSize = size;
        vterm_set_size(mTerminal, size.lines, size.columns);
        const winsize window = ToWindow(size);
        ioctl(mMaster, TIOCSWINSZ, &window);
    }

    void Signal(int signal) const { kill(mPid, signal); }

    // The exit status; -1 when it does not end within the deadline, or is ended by a signal.
    int Wait() {
        int status = 0;
        const bool ended = WaitFor([&] {
            Read();
            return waitpid(mPid, &status, WNOHANG) == mPid;
        });
        mEnded = ended;
        Read();
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // The terminal is as a shell wants it: the first screen, the cursor to be seen, keys echoed and
    // taken by lines.
    bool IsRestored() const {
        termios settings{};
        const bool known = tcgetattr(mMaster, &settings) == 0;
        return known && !mOtherScreen && mCursorVisible && (settings.c_lflag & ECHO) != 0 &&
               (settings.c_lflag & ICANON) != 0;
    }

private:
    static winsize ToWindow(Size size) {
        winsize window{};
        window.ws_row = static_cast<unsigned short>(size.lines);
        window.ws_col = static_cast<unsigned short>(size.columns);
        return window;
    }

    static VTermScreenCallbacks MakeCallbacks() {
        VTermScreenCallbacks callbacks{};
        callbacks.settermprop = [](VTermProp property, VTermValue* value, void* self) {
            auto* terminal = static_cast<Terminal*>(self);
            if (property == VTERM_PROP_ALTSCREEN) {
                terminal->mOtherScreen = value->boolean != 0;
            } else if (property == VTERM_PROP_CURSORVISIBLE) {
                terminal->mCursorVisible = value->boolean != 0;
            }
            return 1;
        };
        return callbacks;
    }

    void Read() {
        std::array<char, 4096> buffer{};
        pollfd waited{mMaster, POLLIN, 0};
        while (poll(&waited, 1, 0) > 0) {
            const ssize_t count = read(mMaster, buffer.data(), buffer.size());
            if (count <= 0) {
                return; // EIO when the program has gone
            }
            vterm_input_write(mTerminal, buffer.data(), static_cast<std::size_t>(count));
            mRaw.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    std::string Line(int line) const {
        constexpr std::size_t MAX_BYTES_A_CELL = 24;
        std::string text(static_cast<std::size_t>(mSize.columns) * MAX_BYTES_A_CELL, '\0');
        text.resize(vterm_screen_get_text(mScreen, text.data(), text.size(), {line, line + 1, 0, mSize.columns}));
        return text.substr(0, text.find_last_not_of(' ') + 1);
    }

    Size mSize;
    int mMaster = -1;
    pid_t mPid = -1;
    bool mEnded = false;
    VTerm* mTerminal = nullptr;
    VTermScreen* mScreen = nullptr;
    bool mOtherScreen = false;
    bool mCursorVisible = true;
    std::string mRaw;
};

} // namespace TestSupport
