// ConsoleScript: the console's one script, served as /console.js (the
// Content Security Policy allows no inline script). It claims the session's
// proof right after sign-in, keeps it in localStorage, which browsers keep
// apart per origin (scheme, host and port), and adds it to every form sent.
#pragma once

#include <string_view>

std::string_view console_script();
