#include "ctl/top/TopPainter.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cwchar>

// The functions with wide characters, and no macros called clear or refresh.
#define NCURSES_NOMACROS 1
#define NCURSES_WIDECHAR 1
#include <curses.h>
#include <term.h>
#include <unistd.h>

#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "ctl/top/TopLines.h"

namespace Ctl::Top {

namespace {

// Pairs of colours, as ncurses numbers them.
enum Ink : short { PLAIN = 0, GREEN = 1, YELLOW = 2, RED = 3 };

constexpr int BAR_PLACES = 30;

// The text as characters; what is not UTF-8 has been escaped before.
std::wstring Widen(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    const std::size_t count = std::mbstowcs(wide.data(), text.c_str(), wide.size());
    wide.resize(count == static_cast<std::size_t>(-1) ? 0 : count);
    return wide;
}

// Writes from left to right on one line of the screen, and nothing beyond its end.
class LineWriter {
public:
    explicit LineWriter(int line) : mLine(line) {}

    LineWriter& Write(const std::string& text, Ink ink = PLAIN, attr_t attributes = A_NORMAL) {
        attr_set(attributes, ink, nullptr);
        for (const wchar_t character : Widen(text)) {
            const int places = std::max(wcwidth(character), 0);
            if (mLine >= LINES || mColumn + places > COLS) {
                break;
            }
            mvaddnwstr(mLine, mColumn, &character, 1);
            mColumn += places;
        }
        attr_set(A_NORMAL, PLAIN, nullptr);
        return *this;
    }

    // Goes on at that column, one blank further on where it is taken already.
    LineWriter& GoTo(int column) {
        mColumn = mColumn > column ? mColumn + 1 : column;
        return *this;
    }

private:
    const int mLine;
    int mColumn = 0;
};

constexpr int LABEL_PLACES = 10;

// The line with its label written.
LineWriter Label(int line, const std::string& label) {
    LineWriter writer(line);
    writer.Write(label, PLAIN, A_BOLD).GoTo(LABEL_PLACES);
    return writer;
}

// "[#####     ]"
std::string Bar(std::int64_t part, std::int64_t whole, int places) {
    const std::int64_t filled = whole <= 0 ? 0 : std::clamp<std::int64_t>(part * places / whole, 0, places);
    const auto count = static_cast<std::size_t>(filled);
    return "[" + std::string(count, '#') + std::string(static_cast<std::size_t>(places) - count, ' ') + "]";
}

std::string Percent(std::int64_t part, std::int64_t whole) {
    constexpr std::int64_t PERCENT = 100;
    return std::to_string(whole <= 0 ? 0 : std::min(part * PERCENT / whole, PERCENT)) + " %";
}

void PaintTitle(const View& view) {
    LineWriter title(0);
    const std::string time = FormatTime(view.time);
    title.Write(std::string(static_cast<std::size_t>(COLS), ' '), PLAIN, A_REVERSE);
    LineWriter(0).Write("corvalent " + view.agent, PLAIN, A_REVERSE);
    LineWriter(0).GoTo(std::max(0, COLS - static_cast<int>(time.size()))).Write(time, PLAIN, A_REVERSE);
}

void PaintMode(const View& view) {
    constexpr int DETECTING = 3;
    LineWriter line = Label(1, "mode");
    if (!view.noAnswer.empty()) {
        line.Write("no answer: " + view.noAnswer, RED, A_BOLD).Write("; trying again");
        return;
    }
    line.Write(view.modeName, view.mode == DETECTING ? GREEN : YELLOW, A_BOLD)
        .Write(view.detectionWished ? ", detection wished" : ", detection not wished")
        .Write(", scope " + (view.scope.empty() ? "the whole machine" : view.scope));
}

void PaintLearned(const View& view) {
    Label(2, "learned")
        .Write(Bar(view.learnedMinutes, view.learnPeriodMinutes, BAR_PLACES), GREEN)
        .Write(" " + Percent(view.learnedMinutes, view.learnPeriodMinutes) + ", " +
               std::to_string(view.learnedMinutes) + " of " + std::to_string(view.learnPeriodMinutes) + " minutes");
}

void PaintEvents(const View& view) {
    Label(3, "events/s")
        .Write("exec " + FormatRate(view.rates, &Rates::exec) + "  fork " + FormatRate(view.rates, &Rates::fork) +
               "  exit " + FormatRate(view.rates, &Rates::exit) + "  judged " + FormatRate(view.rates, &Rates::judged) +
               "  ")
        .Write("lost " + FormatRate(view.rates, &Rates::lost) + " (" + std::to_string(view.lost) + " in all)",
               view.lost > 0 ? RED : PLAIN);
}

void PaintLists(const View& view) {
    Label(4, "lists")
        .Write("local " + std::to_string(view.local) + "  server " + std::to_string(view.server) + "  OS preset " +
               std::to_string(view.osPreset) + "  service preset " + std::to_string(view.servicePreset));
}

void PaintUsage(const View& view) {
    constexpr double KIB_A_MIB = 1024;
    LineWriter line = Label(5, "agent");
    if (!view.usage) {
        line.Write("its process cannot be seen from here");
        return;
    }
    line.Write("memory " + FormatDecimal(static_cast<double>(view.usage->residentKib) / KIB_A_MIB) + " MiB  CPU " +
               FormatDecimal(view.usage->cpuPercent) + " %");
}

void PaintHeading(int line, const std::string& text) {
    LineWriter(line).Write(text, PLAIN, A_BOLD | A_UNDERLINE);
}

void PaintQueue(int line, const Queue& queue) {
    constexpr int NAME_PLACES = 28;
    LineWriter writer(line);
    writer.Write(queue.task)
        .GoTo(NAME_PLACES)
        .Write(Bar(queue.depth, queue.capacity, BAR_PLACES))
        .Write(" " + std::to_string(queue.depth) + " of " + std::to_string(queue.capacity));
    if (queue.lost > 0) {
        writer.Write(", " + std::to_string(queue.lost) + " lost", RED);
    }
}

void PaintAlert(int line, const Alert& alert) {
    LineWriter(line)
        .Write(FormatTime(alert.time) + "  ")
        .Write(Pad(alert.blocked ? "blocked" : "seen", 8), alert.blocked ? RED : YELLOW)
        .Write(Pad(alert.pid, 8) + Pad(alert.user, 10) + " " + alert.path);
}

void PaintLearnedProgram(int line, const Learned& learned) {
    LineWriter(line).Write(FormatTime(learned.time) + "  " + learned.path);
}

// Heading and as many of the things as there is room for up to `end`; the line behind them.
template <typename Thing>
int PaintTable(int line, int end, const std::string& heading, const std::vector<Thing>& things,
               void (*paint)(int, const Thing&)) {
    if (line >= end) {
        return line;
    }
    PaintHeading(line++, heading);
    for (const Thing& thing : things) {
        if (line >= end) {
            break;
        }
        paint(line++, thing);
    }
    return line;
}

// The queues take what they need up to a third; alerts and learned programs share the rest.
void PaintTables(const View& view) {
    constexpr int FIRST_LINE = 7;
    const int end = LINES - 1;
    const int queuesEnd = std::min(end, FIRST_LINE + 1 + std::max(1, (end - FIRST_LINE) / 3));
    int line = PaintTable(FIRST_LINE, queuesEnd, "QUEUES", view.queues, PaintQueue) + 1;
    const int alertsEnd = line + (end - line) / 2;
    const std::string alerts = "LATEST ALERTS of " + std::to_string(view.alertCount) +
                               (view.historyProblem.empty() ? "" : ": " + view.historyProblem);
    line = PaintTable(line, alertsEnd, alerts, view.alerts, PaintAlert) + 1;
    PaintTable(line, end, "LATEST LEARNED", view.learned, PaintLearnedProgram);
}

void PaintKeys(bool paused) {
    LineWriter keys(LINES - 1);
    keys.Write("q quit  p ").Write(paused ? "go on" : "pause").Write("  r refresh  ");
    if (paused) {
        keys.Write("PAUSED", YELLOW, A_BOLD);
    }
}

void UseColours() {
    if (std::getenv("NO_COLOR") != nullptr || !has_colors()) {
        return;
    }
    start_color();
    use_default_colors();
    constexpr short DEFAULT = -1;
    init_pair(GREEN, COLOR_GREEN, DEFAULT);
    init_pair(YELLOW, COLOR_YELLOW, DEFAULT);
    init_pair(RED, COLOR_RED, DEFAULT);
}

// Everything that is printed is UTF-8, whatever the environment says.
void UseUtf8() {
    std::setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) {
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
}

} // namespace

std::string TopPainter::WhyNot() {
    const char* name = std::getenv("TERM");
    const std::string terminal = name == nullptr ? "" : name;
    int known = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &known) != OK) {
        return "the terminal [" + terminal + "] is not known";
    }
    const bool movable = tigetstr("cup") != nullptr;
    del_curterm(set_curterm(nullptr));
    return movable ? "" : "the terminal [" + terminal + "] has no cursor that can be moved";
}

TopPainter::TopPainter() {
    UseUtf8();
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) {
        throw Failure("the terminal cannot be painted on");
    }
    mScreen = screen;
    set_term(screen);
    UseColours();
    cbreak();
    noecho();
    nodelay(stdscr, TRUE);
    keypad(stdscr, TRUE);
    curs_set(0);
}

TopPainter::~TopPainter() {
    endwin();
    delscreen(static_cast<SCREEN*>(mScreen));
}

void TopPainter::Paint(const View& view, bool paused) const {
    erase();
    PaintTitle(view);
    PaintMode(view);
    PaintLearned(view);
    PaintEvents(view);
    PaintLists(view);
    PaintUsage(view);
    PaintTables(view);
    PaintKeys(paused);
    refresh();
}

TopPainter::Key TopPainter::ReadKey() {
    switch (getch()) {
    case ERR:
        return Key::NONE;
    case 'q':
    case 'Q':
        return Key::QUIT;
    case 'p':
    case ' ':
        return Key::PAUSE;
    case 'r':
        return Key::REFRESH;
    case KEY_RESIZE:
        return Key::RESIZED;
    default:
        return Key::OTHER;
    }
}

} // namespace Ctl::Top
