// Text that came over the network, made fit for a terminal and for JSON: UTF-8, no control characters.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

// Which encoding is tried first. The agent converts to Shift_JIS what it prepares for the network (group,
// notices) and passes on other fields as the host keeps them, in EUC-JP; commands are whatever their writer
// sent. A run of bytes can be valid in several.
enum class TEXT_CODE { ShiftJis, Euc, Utf8 };

/// A field up to its NUL or its end, in UTF-8. Bytes that decode in no way appear as "\xNN", and so do, in
/// any case, characters that steer a terminal (controls, and marks that turn the direction of writing).
/// Trailing blanks are dropped.
[[nodiscard]] std::string text_safe(std::span<const char> field, TEXT_CODE first);

/// Terminal columns of a text made by text_safe: 2 for a full-width character, 1 otherwise.
[[nodiscard]] std::size_t text_columns(std::string_view text);

/// The beginning of `text` that fits into `columns`, never half a character.
[[nodiscard]] std::string_view text_fit(std::string_view text, std::size_t columns);

/// `text` filled with blanks, or cut, to exactly `columns`.
[[nodiscard]] std::string text_padded(std::string_view text, std::size_t columns);

/// For terminals that cannot show UTF-8: every character beyond ASCII becomes '?', two for a full-width one.
[[nodiscard]] std::string text_ascii(std::string_view text);
