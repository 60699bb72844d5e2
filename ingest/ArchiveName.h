// ArchiveName: what a Borg archive's name says about its workload. Archive
// names are usually a fixed prefix and the time of the run
// ("web01-home-2026-11-25T02:00:01"), so the prefix names the backup set
// within a repository. Pure; never throws.
#pragma once

#include <string>
#include <string_view>

// The name before its date (YYYY-MM-DD, as Borg's {now} and {utcnow} write
// it), or else before its trailing digits, without the separators ('-', '_',
// '.', ':', '@', ' ') that joined them; "" when nothing is left.
std::string archive_name_prefix(std::string_view name);
