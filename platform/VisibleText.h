// VisibleText: makes text from the database, a configuration file or a
// request safe to show where a byte could act: a log line or a terminal.
// Control characters and bytes that are not UTF-8 become visible escapes
// (\n, \t, \x1b, \xff), and so do the invisible characters that reorder or
// hide text (bidirectional overrides, zero-width characters, U+2028...: \u202e),
// so one message stays one line, reads as stored and no escape sequence
// reaches a terminal; other printable text, UTF-8 included, is unchanged.
// The functions are pure and never fail.
#pragma once

#include <string>
#include <string_view>

// C0 controls, DEL, the C1 controls (U+0080..U+009F, which some terminals
// obey like ESC) and every byte that is not part of a valid UTF-8 sequence
// are written as escapes, and so are the Unicode format characters and the
// line and paragraph separators (util/FormatCharacter.h); everything else is
// copied.
std::string visible_text(std::string_view text);
