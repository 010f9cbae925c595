#pragma once
// Text that is safe to show on a console. File names on Linux are byte strings and need not be
// UTF-8; messages that carry them are cleaned up on their way to the console, never on their way
// to the file system.

#include <string>
#include <string_view>

namespace vertexmill
{

// The text with every byte that does not belong to a well-formed UTF-8 sequence replaced by
// U+FFFD, and every control character a terminal would act on (escape sequences, carriage
// return, backspace; not line end or tab) written as its code ("\x1b", "\u009b"): names and
// format names come from files, and must not move the cursor or recolour the console. Plain
// well-formed text comes back unchanged.
std::string toDisplayText(std::string_view text);

// Number of terminal columns the (well-formed) text takes, counting characters outside ASCII as
// two columns so that a line measured with it never wraps.
size_t displayWidth(std::string_view text);

// The last characters of the text that fit in `columns` columns, behind "..." when something was
// cut off. Expects well-formed text.
std::string tailToWidth(std::string_view text, size_t columns);

} // namespace vertexmill
