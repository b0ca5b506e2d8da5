#pragma once

#include <cstddef>

#include "tools/kelmctl/TopGrid.h"

namespace kelm::ctl {

// The terminal in full-screen mode. Taken over for the object's life, given back as it was.
//
// Threads: one; at most one object in a process.
class TopScreen {
 public:
    TopScreen();  // throws when the terminal cannot be taken over, with a text for the user
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    void draw(const TopGrid& grid);
    // The next key, a character or a TopKey; -1 when none waits.
    int readKey();
    // Takes over the terminal's present size.
    void resize();
    size_t width() const;
    size_t height() const;

 private:
    void* m_screen = nullptr;  // curses' own record
};

}  // namespace kelm::ctl
