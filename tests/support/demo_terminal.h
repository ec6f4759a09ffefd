// The user's terminal in the live demo: a page where the terminal can place a cursor, lines on any other;
// keys at once on both.
#pragma once

enum class DEMO_TERMINAL { Page, Lines };

// Keys that are no character.
inline constexpr int TERMINAL_NO_KEY = -1;
inline constexpr int TERMINAL_GONE = -2;

/// Takes the terminal over: standard input and output. The page's own functions are those of
/// voltaria_screen.h.
[[nodiscard]] DEMO_TERMINAL terminal_open();

/// Gives the terminal back as it was. Harmless when it was not taken.
void terminal_close();

/// The next key without waiting. Arrows up and down come as '+' and '-', Ctrl-C as 'q'.
[[nodiscard]] int terminal_key();
