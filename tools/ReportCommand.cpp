#include "tools/ReportCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/AnomalyStore.h"
#include "tools/CommandArgs.h"
#include "tools/ErrorText.h"
#include "tools/HtmlReport.h"

const char* const kReportHelp =
    "usage: tsanomalyctl report DB -o FILE.html [--limit N]\n"
    "\n"
    "Writes one HTML page about the anomalies in the detector database DB: a\n"
    "summary (how many, which clients, how recent, the most frequent kind), then\n"
    "one card per anomaly, newest first, with a chart of the workload's history\n"
    "for every feature that left its usual range. The page is self-contained:\n"
    "no scripts, nothing fetched; open it in any browser, also offline.\n"
    "\n"
    "  -o, --output FILE  where to write the page (an existing file is replaced)\n"
    "  --limit N          at most N cards (default 100); the summary counts all\n";

namespace {

constexpr long long kDefaultLimit = 100;

int usage_error(const std::string& message) { return CommandArgs::usage_error("report", message); }

bool same_file(const std::string& a, const std::string& b) {
  struct stat sa {}, sb {};
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// The page goes to a temporary file beside the target and is renamed into
// place, so a reader never sees half a page and a failed run leaves an
// earlier report intact.
void write_page(const std::string& path, const std::string& page) {
  const std::string temporary = path + ".tmp." + std::to_string(getpid());
  const auto fail = [&](int error) {
    std::remove(temporary.c_str());
    throw std::runtime_error("cannot write '" + path + "': " + std::strerror(error));
  };
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr) fail(errno);
  const bool written = std::fwrite(page.data(), 1, page.size(), file) == page.size();
  const int write_error = errno;
  if (std::fclose(file) != 0 || !written) fail(written ? errno : write_error);
  if (std::rename(temporary.c_str(), path.c_str()) != 0) fail(errno);
}

}  // namespace

int run_report(int argc, char** argv) {
  CommandArgs args(argc, argv, {{}, {"-o", "--output", "--limit"}, 1, 1});
  const long long limit = args.integer("--limit", kDefaultLimit, 0, 1000000000);
  if (auto exit_code = args.help_or_usage_error("report", kReportHelp)) return *exit_code;
  const auto output = args.value("-o") ? args.value("-o") : args.value("--output");
  if (!output) return usage_error("missing -o FILE.html: where to write the page");
  if (output->empty()) return usage_error("-o needs a file name");
  const std::string& database = args.positional()[0];
  if (same_file(database, *output)) return usage_error("-o names the database itself; choose another file");

  try {
    const AnomalyStore store(database);
    const std::vector<AnomalyRecord> all = store.anomalies({});
    HtmlReport report(database, std::time(nullptr));
    report.summarise(all);
    const std::size_t shown = std::min(all.size(), static_cast<std::size_t>(limit));
    for (std::size_t i = 0; i < shown; ++i) report.add_card(all[i], store.history_of(all[i]));
    write_page(*output, report.html());
    std::cout << "Wrote " << *output << ": " << shown << " of " << all.size()
              << (all.size() == 1 ? " anomaly" : " anomalies") << ".\n";
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl report: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
