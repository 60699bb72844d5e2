#include "cli/ExplainCommand.h"

#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>
#include <utility>

#include "platform/VisibleText.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"
#include "replay/JudgementReplay.h"
#include "util/Json.h"

const CommandArgs::Syntax kExplainSyntax{
    {{.name = "-config_file", .value_name = "INI", .help = "the service's configuration file"},
     {.name = "-eps", .value_name = "E", .help = "the service's -eps", .number = NumberRange{-1e300, 1e300}},
     {.name = "-min_samples",
      .value_name = "N",
      .help = "the service's -min_samples (default 3)",
      .whole = WholeRange{3, 1000000}},
     {.name = "--json",
      .help = "one JSON object: outcome (history, anomaly, pending, processed),\nreason, and the details above"}},
    2,
    2,
    {"DB", "UNIQUE_KEY"}};

const std::string kExplainHelp =
    "usage: tsanomalyctl explain DB UNIQUE_KEY [-config_file INI] [-eps E] [-min_samples N] [--json]\n"
    "\n"
    "Shows how the next detection pass would judge the job UNIQUE_KEY of\n"
    "DATA_TO_PROCESS if it were the only pending job: the exclusions and stream\n"
    "check, the training set it takes (the job's own storage, or the two-feature\n"
    "fallback across storages), calibration, eps, the job's DBSCAN label, its\n"
    "nearest cluster, each feature against that cluster's usual range, the rule\n"
    "that decides, and the outcome with the payload it would write. A job that\n"
    "was already reported is judged again, to show why it was reported.\n"
    "\n"
    "It runs the detector's own pass on an in-memory copy of the job's workload;\n"
    "DB is opened read-only and never changed, also while the service runs.\n"
    "Give the service's -config_file, -eps and -min_samples for its judgement.\n"
    "\n" +
    options_help(kExplainSyntax.options) +
    "\n"
    "Exit status: 0 explained, 1 DB or the job could not be read, 2 bad arguments.\n";

namespace {

std::string number(double value, int decimals = 6) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string cell(const Judgement& j, const char* column) {
  const auto found = j.job.find(column);
  return found == j.job.end() ? "" : found->second.text();
}

void print_header(const Judgement& j) {
  std::cout << "Job " << visible_text(cell(j, "JOB_ID")) << " (" << visible_text(j.unique_key) << "): "
            << visible_text(cell(j, "CLIENT")) << " / " << visible_text(cell(j, "POLICY")) << " / "
            << visible_text(cell(j, "POLICY_TYPE")) << " / " << visible_text(cell(j, "SCHEDULE_NAME"))
            << ", storage " << visible_text(cell(j, "DESTINATION_STORAGE_NAME")) << ", asset "
            << visible_text(cell(j, "ASSET_ID")) << ", stream " << visible_text(cell(j, "STREAM_NUMBER")) << "\n";
  std::cout << "In the queue: " << (j.reported_already ? "reported by an earlier pass (judged again here)" : "pending")
            << "\n";
  if (j.verdicts_first > 0) {
    std::cout << "First, the pass folds in " << j.verdicts_first
              << " user verdict(s) on this workload: they change its training set (included here).\n";
  }
  if (j.earlier_pending > 0) {
    std::cout << "The pass judges " << j.earlier_pending
              << " earlier pending job(s) of this workload first: they may change its training set (not "
                 "included here).\n";
  }
}

void print_training(const Judgement& j) {
  if (j.training == TrainingKind::none) return;
  std::cout << "\nTraining set: " << (j.training == TrainingKind::full ? "the job's own storage" : "fallback across storages")
            << ", " << j.training_size << " jobs (minimum " << j.min_required << ", limit " << j.training_limit
            << ")\n";
  std::string names;
  for (const std::string& name : j.features) names += (names.empty() ? "" : ", ") + name;
  std::cout << "Features of the job: " << (names.empty() ? "none" : names) << " (training rows have "
            << j.training_width << ")\n";
  if (j.calibration_due && j.stored_eps) {
    std::cout << "Calibration: due; the pass stores eps " << number(*j.stored_eps) << "\n";
  } else if (j.stored_eps) {
    std::cout << "Calibration: not due; the stored eps is " << number(*j.stored_eps) << "\n";
  } else {
    std::cout << "Calibration: not due; no eps stored, the command line's is used\n";
  }
}

void print_clustering(const Judgement& j) {
  if (!j.clustered) return;
  std::cout << "Eps " << number(j.model_eps) << ", adjusted by the sensitivity to " << number(j.adjusted_eps) << "\n";
  std::cout << "DBSCAN label of the job: " << j.label << (j.label == -1 ? " (noise: an outlier)" : " (in a cluster)")
            << "\n";
  if (j.nearest) {
    std::cout << "Nearest cluster: " << j.nearest->cluster_id << " at distance " << number(j.nearest->distance, 2)
              << "\n";
  }
  for (const FeatureReading& r : j.readings) {
    std::cout << "  " << r.column << std::string(16 - r.column.size(), ' ') << number(r.value, 2);
    if (r.usual) {
      std::cout << "  usual " << number(r.usual->first, 2) << " - " << number(r.usual->second, 2);
    } else {
      std::cout << "  no usual range";
    }
    std::cout << (r.in_range ? "  in range" : "  OUTSIDE") << "\n";
  }
}

void print_human(const Judgement& j) {
  print_header(j);
  std::cout << "\nThe pass, in the detector's own log lines:\n";
  for (const auto& [level, message] : j.steps) std::cout << "  <" << level << "> " << message << "\n";
  if (!j.standard_output.empty()) std::cout << "  (standard output) " << visible_text(j.standard_output) << "\n";
  print_training(j);
  print_clustering(j);
  std::cout << "\nOutcome: " << outcome_name(j.outcome) << " - " << j.reason << "\n";
  if (!j.hint.empty()) std::cout << "Hint: " << j.hint << "\n";
  if (!j.payload.empty()) std::cout << "Payload: " << visible_text(j.payload) << "\n";
}

Json training_json(const Judgement& j) {
  Json training = Json::object();
  training.set("set", Json::string(j.training == TrainingKind::full ? "storage" : "fallback"));
  training.set("size", Json::integer(j.training_size));
  training.set("minimum", Json::integer(j.min_required));
  training.set("limit", Json::integer(j.training_limit));
  Json features = Json::array();
  for (const std::string& name : j.features) features.append(Json::string(name));
  training.set("features", std::move(features));
  training.set("calibration_due", Json::boolean(j.calibration_due));
  if (j.stored_eps) training.set("stored_eps", Json::real(*j.stored_eps));
  return training;
}

Json clustering_json(const Judgement& j) {
  Json clustering = Json::object();
  clustering.set("eps", Json::real(j.model_eps));
  clustering.set("adjusted_eps", Json::real(j.adjusted_eps));
  clustering.set("label", Json::integer(j.label));
  if (j.nearest) {
    clustering.set("nearest_cluster", Json::integer(j.nearest->cluster_id));
    clustering.set("distance", Json::real(j.nearest->distance));
  }
  Json readings = Json::array();
  for (const FeatureReading& r : j.readings) {
    Json reading = Json::object();
    reading.set("feature", Json::string(r.column));
    reading.set("value", Json::real(r.value));
    if (r.usual) {
      reading.set("usual_min", Json::real(r.usual->first));
      reading.set("usual_max", Json::real(r.usual->second));
    }
    reading.set("in_range", Json::boolean(r.in_range));
    readings.append(std::move(reading));
  }
  clustering.set("features", std::move(readings));
  return clustering;
}

void print_json(const Judgement& j) {
  Json root = Json::object();
  root.set("unique_key", Json::string(j.unique_key));
  root.set("outcome", Json::string(outcome_name(j.outcome)));
  root.set("reason", Json::string(j.reason));
  if (!j.hint.empty()) root.set("hint", Json::string(j.hint));
  root.set("reported_already", Json::boolean(j.reported_already));
  root.set("verdicts_folded_first", Json::integer(j.verdicts_first));
  root.set("earlier_pending_jobs", Json::integer(j.earlier_pending));
  Json steps = Json::array();
  for (const auto& step : j.steps) steps.append(Json::string(step.second));
  root.set("steps", std::move(steps));
  if (j.training != TrainingKind::none) root.set("training", training_json(j));
  if (j.clustered) root.set("clustering", clustering_json(j));
  if (!j.payload.empty()) {
    root.set("payload", Json::parsed_or_string(j.payload));
  }
  std::cout << root.dump({.compact = true, .keep_order = true, .escape_separators = true}) << "\n";
}

}  // namespace

int run_explain(int argc, char** argv) {
  CommandArgs args(argc, argv, kExplainSyntax);
  if (auto exit_code = args.help_or_usage_error("explain", kExplainHelp)) return *exit_code;
  ReplaySettings settings;
  settings.config_file = args.value("-config_file").value_or("");
  settings.eps = args.number("-eps", 0.0);
  settings.min_samples = static_cast<int>(args.integer("-min_samples", 3));
  if (auto exit_code = args.help_or_usage_error("explain", kExplainHelp)) return *exit_code;
  try {
    const Judgement judgement = replay_judgement(args.positional()[0], args.positional()[1], settings);
    if (args.flag("--json")) {
      print_json(judgement);
    } else {
      print_human(judgement);
    }
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl explain: " << ErrorText::of(e) << "\n";
    return 1;
  }
  return 0;
}
