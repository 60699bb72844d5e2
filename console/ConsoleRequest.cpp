#include "console/ConsoleRequest.h"

#include <cerrno>
#include <cstdlib>
#include <utility>
#include <vector>

#include "operator/TimeText.h"
#include "console/ConsoleJson.h"
#include "console/ConsoleServer.h"
#include "console/UrlText.h"
#include "util/Text.h"

namespace console_request {
namespace {

constexpr const char* kApiPrefix = "/api/";

}  // namespace

// The reason phrase of the statuses the console sends.
std::string status_title(int status) {
  static const std::pair<int, const char*> kTitles[] = {
      {400, "Bad request"},    {401, "Sign-in needed"},        {403, "Forbidden"},
      {404, "Not found"},      {405, "Method not allowed"},    {409, "Conflict"},
      {413, "Request too large"}, {414, "Address too long"}, {431, "Headers too large"},
      {500, "Internal error"},
  };
  for (const auto& [code, title] : kTitles) {
    if (code == status) return title;
  }
  return "Error " + std::to_string(status);
}

bool is_api(const Request& req) { return req.path.rfind(kApiPrefix, 0) == 0; }

namespace {
std::string page_path(const std::string& path);
std::vector<std::pair<std::string, std::string>> kept_params(const Request& req);
}  // namespace

void send_error(const Request& req, Response& res, int status, const std::string& message) {
  res.status = status;
  if (is_api(req) || req.path == "/metrics") {
    res.set_content(console_json::error(status, message), "application/json");
  } else if (status == 401) {
    // A browser that follows an alert's link lands here: it signs in with
    // the token and comes back to the page it asked for.
    res.set_content(console_pages::sign_in_page(message, page_path(req.path), kept_params(req)),
                    "text/html; charset=utf-8");
  } else {
    res.set_content(console_pages::message_page(status_title(status), message),
                    "text/html; charset=utf-8");
  }
}

std::string cookie(const Request& req, const std::string& name) {
  const std::string header = req.get_header_value("Cookie");
  std::size_t at = 0;
  while (at < header.size()) {
    const std::size_t end = std::min(header.find(';', at), header.size());
    std::size_t start = header.find_first_not_of(' ', at);
    if (start < end && header.compare(start, name.size() + 1, name + "=") == 0) {
      return header.substr(start + name.size() + 1, end - start - name.size() - 1);
    }
    at = end + 1;
  }
  return "";
}

std::optional<std::string> bearer(const Request& req) {
  const std::string header = req.get_header_value("Authorization");
  if (header.rfind("Bearer ", 0) != 0) return std::nullopt;
  return header.substr(7);
}

std::string sent_secret(const Request& req, const char* field, const char* header) {
  if (req.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    httplib::Params form;
    httplib::detail::parse_query_text(req.body, form);
    const auto found = form.find(field);
    if (found != form.end()) return found->second;
  }
  return req.get_header_value(header);
}

// A filter value as sent, bounded in size.
std::string param(const Request& req, const char* name) {
  std::string value = req.get_param_value(name);
  if (value.size() > ConsoleServer::kMaxFilterBytes) {
    throw RequestError(400, std::string(name) + " is longer than " + std::to_string(ConsoleServer::kMaxFilterBytes) +
                                " bytes");
  }
  return value;
}

long long number_param(const Request& req, const char* name, long long fallback, long long min, long long max) {
  const std::string text = param(req, name);
  if (text.empty()) return fallback;
  const std::optional<long long> n = text::whole_number(text, min, max);
  if (!n) {
    throw RequestError(400, std::string(name) + " must be a whole number from " + std::to_string(min) + " to " +
                                std::to_string(max));
  }
  return *n;
}

namespace {

time_t day_param(const std::string& text, const char* name) {
  const auto t = TimeText::parse_local(text);
  if (!t || text.size() != 10) throw RequestError(400, std::string(name) + " must be a date YYYY-MM-DD");
  return *t;
}

}  // namespace

// The filter of the list page and of GET /api/v1/anomalies. "to" is a day
// included in the range.
ListQuery list_query(const Request& req, console_pages::FilterForm& form) {
  form = {param(req, "client"), param(req, "policy"), param(req, "from"), param(req, "to"), param(req, "state")};
  ListQuery query;
  query.client = form.client;
  query.policy = form.policy;
  if (!form.from.empty()) query.from = day_param(form.from, "from");
  if (!form.to.empty()) query.to = TimeText::parse_local(form.to + " 23:59:59").value_or(day_param(form.to, "to")) + 1;
  if (!form.state.empty()) {
    query.state = state_by_slug(form.state);
    if (!query.state) throw RequestError(400, "unknown state '" + form.state + "'");
  }
  return query;
}

namespace {

// The page a request asked for, spelled anew, so no decoded path
// ("//other.site") can lead elsewhere.
std::string page_path(const std::string& path) {
  // The path holds the anomaly's handle already: it is only encoded again.
  if (path.rfind(kAnomalyPathPrefix, 0) == 0) {
    return std::string(kAnomalyPathPrefix) + percent_encode(path.substr(kAnomalyPathPrefix.size()));
  }
  for (const char* page : {"/status", "/workloads", "/anomalies.csv"}) {
    if (path == page) return page;
  }
  return "/";
}

// The request's parameters but the token, encoded anew.
std::vector<std::pair<std::string, std::string>> kept_params(const Request& req) {
  std::vector<std::pair<std::string, std::string>> kept;
  for (const auto& [name, value] : req.params) {
    if (name != "token") kept.emplace_back(name, value);
  }
  return kept;
}

}  // namespace

std::string signed_in_target(const Request& req) {
  std::string query;
  for (const auto& [name, value] : kept_params(req)) {
    query += (query.empty() ? "?" : "&") + percent_encode(name) + "=" + percent_encode(value);
  }
  return page_path(req.path) + query;
}

// What the page says after a verdict form was sent, by the code in its URL.
std::string result_sentence(const std::string& code) {
  static const std::pair<const char*, const char*> kSentences[] = {
      {"false-positive-recorded", "Reported as a false positive. The next detection pass takes the job into the "
                                  "history."},
      {"false-positive-already", "This anomaly was already reported as a false positive; nothing changed."},
      {"acknowledge-recorded", "Acknowledged."},
      {"acknowledge-already", "This anomaly was already acknowledged; nothing changed."},
      {"conflict", "Not changed: the anomaly already has the other verdict."},
      {"job-gone", "Not changed: the job is no longer in the detection queue, so no pass could learn it."},
      {"foreign-code", "Not changed: the database carries a trigger or view on the detector's tables that its "
                       "schema does not define; 'tsanomalyctl upgrade' lists them."},
  };
  for (const auto& [key, sentence] : kSentences) {
    if (code == key) return sentence;
  }
  return "";
}

}  // namespace console_request
