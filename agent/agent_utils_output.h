// Debug output of both processes, into the file DEBUG_FILE. Nothing here blocks, and a failure is never the
// caller's problem: the results are for whoever is curious.
#pragma once

inline constexpr char DEBUG_FILE[] = "/.erra";

/// Appends `text` to DEBUG_FILE, which is created (0600, owner 0, group 1) when missing and started anew once
/// it occupies more than 1024 blocks. 0 when the file was empty and took the whole text or could not be
/// opened; -1 when it already had content (the text is in it all the same) or took only a part.
int user_printf(const char *text);

/// Appends `text`. Result as of user_printf.
int printf0(const char *text);

/// Appends `text` between two lines of 31 dashes. -1 when any of the three parts gave -1.
int printf1(const char *text);

/// Appends `text` and a newline. A text longer than 254 characters is cut there, in the caller's buffer too.
int printfn(char *text);
