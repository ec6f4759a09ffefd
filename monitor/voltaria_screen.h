// The terminal of `voltaria watch`, through ncurses: opened once, drawn whole each time, given back as it
// was.
#pragma once

#include "monitor_page.h"

#include <vector>

enum class SCREEN_KEY { None, Quit, Redraw };

/// Takes the terminal over. False when there is none, or none that can be drawn on: nothing has changed then.
[[nodiscard]] bool screen_open();
/// Gives the terminal back.
void screen_close();
[[nodiscard]] PAGE_SIZE screen_size();
/// Shows the page; with `utf8` false only ASCII is sent.
void screen_draw(const std::vector<PAGE_LINE> &page, bool utf8);
/// The next key that means something, without waiting. None: there are no more.
[[nodiscard]] SCREEN_KEY screen_key();
