// HtmlEscape: text made safe for HTML and SVG, in content and in quoted
// attribute values alike. Whatever a client is called, the page stays valid.
#pragma once

#include <string>
#include <string_view>

// Markup characters become entities; control characters (other than tab
// and line breaks) and bytes that are not UTF-8 become U+FFFD; Unicode format
// characters and line/paragraph separators become their code point (\u202e).
std::string html_escape(std::string_view text);
