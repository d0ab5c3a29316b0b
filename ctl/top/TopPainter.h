#pragma once

#include <string>

#include "ctl/top/TopSampler.h"

namespace Ctl::Top {

// The view on the whole screen of a terminal (ncurses). The terminal is the painter's from the
// constructor to the destructor, which leaves it as it was found.
class TopPainter {
public:
    // Why this terminal cannot be painted on, in one line; "" when it can. Writes nothing to it.
    static std::string WhyNot();

    // Throws Failure when the terminal cannot be had after all.
    TopPainter();
    ~TopPainter();
    TopPainter(const TopPainter&) = delete;
    TopPainter& operator=(const TopPainter&) = delete;

    // Paints the view as large as the screen is now.
    void Paint(const View& view, bool paused) const;

    enum class Key { NONE, QUIT, PAUSE, REFRESH, RESIZED, OTHER };

    // The next key that was pressed; never waits.
    static Key ReadKey();

private:
    void* mScreen = nullptr; // ncurses' SCREEN
};

} // namespace Ctl::Top
