#include "cli/IngestCommand.h"

#include <unistd.h>

#include <climits>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>

#include "cli/CommandArgs.h"
#include "ingest/IngestFormats.h"
#include "ingest/IngestRun.h"
#include "ingest/QueueWriter.h"
#include "operator/ErrorText.h"
#include "platform/VisibleText.h"

namespace {

std::string format_names() {
  std::string names;
  for (const IngestFormat& format : ingest_formats()) names += (names.empty() ? "" : ", ") + std::string(format.name);
  return names;
}

std::string formats_help() {
  std::string help = "formats:\n";
  for (const IngestFormat& format : ingest_formats()) {
    const std::size_t name_length = std::string(format.name).size();
    help += "  " + std::string(format.name) + std::string(name_length < 16 ? 16 - name_length : 1, ' ') + format.help +
            (format.lists_past_jobs ? " (queued oldest first)" : "") + "\n";
  }
  return help;
}

// The inputs one run reads at most; each is named, so the completion offers
// a file name for every one.
constexpr std::size_t kMaxInputs = 32;

std::vector<std::string> argument_names() {
  std::vector<std::string> names{"DB"};
  names.insert(names.end(), kMaxInputs, "FILE");
  return names;
}

}  // namespace

const CommandArgs::Syntax kIngestSyntax{
    {{.name = "--format", .value_name = "FORMAT", .help = "the tool's output: " + format_names()},
     {.name = "--client", .value_name = "NAME", .help = "the client (default: the tool's, else this host's name)"},
     {.name = "--policy", .value_name = "NAME", .help = "the policy (default: the tool's, else its name)"},
     {.name = "--policy-type", .value_name = "NAME", .help = "the policy type (default: the tool's name)"},
     {.name = "--schedule", .value_name = "NAME", .help = "the schedule name (default: \"default\")"},
     {.name = "--storage", .value_name = "NAME", .help = "the destination storage (default: the tool's, else NA)"},
     {.name = "--asset", .value_name = "NAME", .help = "the asset (default: the tool's, else NA)"},
     {.name = "--time",
      .value_name = "EPOCH",
      .help = "the end of a job whose output carries no time\n(default: now)",
      .whole = WholeRange{0, 253402300799}},
     {.name = "--as-history", .help = "write the jobs into the history as accepted jobs\ninstead of the queue"}},
    1,
    1 + kMaxInputs,
    argument_names()};

const std::string kIngestHelp =
    "usage: tsanomalyctl ingest DB --format FORMAT [--client NAME] [--policy NAME]\n"
    "                           [--policy-type NAME] [--schedule NAME] [--storage NAME]\n"
    "                           [--asset NAME] [--time EPOCH] [--as-history] [FILE ...]\n"
    "\n"
    "Reads a backup tool's own output from each FILE (at most " + std::to_string(kMaxInputs) +
    "; standard input when\n"
    "there is none, or for '-') and queues every finished job it reports in\n"
    "DATA_TO_PROCESS, for the next detection pass to judge. The options name what\n"
    "the output lacks and override what it says. A job already in the queue or\n"
    "the history is not queued again, so the same output can be ingested twice.\n"
    "Failed jobs and records that cannot be read are named on standard error and\n"
    "skipped.\n"
    "Prints one line: jobs queued, already queued, skipped. Exits 0, or 1 when a\n"
    "record was skipped or the database cannot be written (it is written by root\n"
    "and by the members of the group '" +
    std::string(kIngestGroup) + "').\n\n" + formats_help() + "\n" + options_help(kIngestSyntax.options);

namespace {

IngestOptions options_from(CommandArgs& args) {
  IngestOptions options;
  options.client = args.value("--client");
  options.policy = args.value("--policy");
  options.policy_type = args.value("--policy-type");
  options.schedule_name = args.value("--schedule");
  options.storage = args.value("--storage");
  options.asset = args.value("--asset");
  options.default_end_time = args.integer("--time", static_cast<long long>(std::time(nullptr)));
  options.as_history = args.flag("--as-history");
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  options.default_client = host;
  return options;
}

// Every input in turn; false when one cannot be opened (the others are read).
bool read_inputs(const std::vector<std::string>& files, IngestRun& run) {
  bool all_opened = true;
  for (const std::string& file : files) {
    if (file == "-") {
      run.read(std::cin, "standard input");
      continue;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::cerr << "tsanomalyctl ingest: cannot read '" << visible_text(file) << "'\n";
      all_opened = false;
      continue;
    }
    run.read(in, file);
  }
  return all_opened;
}

void print_counts(const QueueWriter& writer, const IngestRun& run, bool as_history) {
  if (as_history) {
    std::cout << writer.written() << " jobs added to the history, " << writer.already_known() << " already known, "
              << run.skipped_count() << " skipped\n";
  } else {
    std::cout << writer.written() << " jobs queued, " << writer.already_known() << " already queued, "
              << run.skipped_count() << " skipped\n";
  }
}

}  // namespace

int run_ingest(int argc, char** argv) {
  CommandArgs args(argc, argv, kIngestSyntax);
  if (auto exit_code = args.help_or_usage_error("ingest", kIngestHelp)) return *exit_code;
  const IngestOptions options = options_from(args);
  if (auto exit_code = args.help_or_usage_error("ingest", kIngestHelp)) return *exit_code;
  const auto format_name = args.value("--format");
  if (!format_name) return CommandArgs::usage_error("ingest", "--format is required (" + format_names() + ")");
  const IngestFormat* format = find_ingest_format(*format_name);
  if (!format) {
    return CommandArgs::usage_error("ingest", "unknown format '" + visible_text(*format_name) + "' (" + format_names() + ")");
  }
  std::vector<std::string> files(args.positional().begin() + 1, args.positional().end());
  if (files.empty()) files.push_back("-");
  try {
    QueueWriter writer(args.positional()[0], options.as_history);
    IngestRun run(*format, options, writer, std::cerr);
    const bool all_opened = read_inputs(files, run);
    writer.flush();
    print_counts(writer, run, options.as_history);
    return all_opened && run.skipped_count() == 0 ? 0 : 1;
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl ingest: " << ErrorText::of(e) << "\n";
    return 1;
  }
}
