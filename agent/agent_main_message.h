// Lookup of the texts shown to users. The message id is the English text itself.
#pragma once

/// Puts "ja" into LANG, LANGUAGE, KDE_LANG and LC_ALL and binds the message catalogue. Once, at the start,
/// before the fork.
void message_start();

/// The Japanese translation of `msgid`, in EUC-JP, or `msgid` itself when the catalogue has none; cut at 255
/// bytes, never within a character. Lies in one static buffer until the next lookup. The four variables of
/// message_start keep their values, but one that was not set is empty afterwards.
[[nodiscard]] const char *GETTEXTj(const char *msgid);

/// `msgid` itself: the English text.
[[nodiscard]] const char *GETTEXTe(const char *msgid);
