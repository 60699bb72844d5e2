#include "alerts/WebhookChannel.h"

#include <curl/curl.h>

#include <memory>

#include "platform/VisibleText.h"
#include "util/Json.h"

namespace {

struct CurlDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct HeaderListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// The answer's body is of no use to us and may be large: it is dropped.
size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

std::unique_ptr<curl_slist, HeaderListDeleter> headers(const ChannelSettings& settings, const AlertMessage& message) {
  curl_slist* list = curl_slist_append(nullptr, "Content-Type: application/json");
  // Receivers that keep state can drop a repeat after a crash by this key.
  list = curl_slist_append(list, ("X-Tsanomaly-Alert-Key: " + visible_text(message.key)).c_str());
  if (!settings.authorization.empty()) {
    list = curl_slist_append(list, ("Authorization: " + settings.authorization).c_str());
  }
  return std::unique_ptr<curl_slist, HeaderListDeleter>(list);
}

// Slack reads "<...>" in a text as a link or a mention ("<!channel>" pings
// everyone) and "&" as the start of an entity; escaped as its documentation
// asks, text from the database is shown exactly as written and acts as nothing.
std::string slack_escaped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

std::string WebhookChannel::body(WebhookFormat format, const AlertMessage& message) {
  if (format == WebhookFormat::Json) return message.json;
  if (format == WebhookFormat::Alertmanager) {
    // Each element is a complete JSON value already: listing them is all.
    std::string list = "[";
    for (const std::string& alert : message.alertmanager) list += (list.size() > 1 ? "," : "") + alert;
    return list + "]";
  }
  Json document = Json::object();
  document.set("text", Json::string(slack_escaped(message.text)));
  return document.dump({.compact = true, .escape_separators = true});
}

SendResult WebhookChannel::send(const AlertMessage& message) {
  std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
  if (!curl) return {false, "cannot start an HTTP request"};
  const std::string payload = body(settings_.format, message);
  const auto header_list = headers(settings_, message);
  char error[CURL_ERROR_SIZE] = "";
  CURL* c = curl.get();
  curl_easy_setopt(c, CURLOPT_URL, settings_.url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(settings_.timeout_seconds));
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, header_list.get());
  curl_easy_setopt(c, CURLOPT_POSTFIELDS, payload.c_str());
  curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(payload.size()));
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(c, CURLOPT_USERAGENT, "tsanomalyalert");
  const CURLcode code = curl_easy_perform(c);
  if (code != CURLE_OK) {
    return {false, visible_text(error[0] != '\0' ? error : curl_easy_strerror(code))};
  }
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200 || status > 299) return {false, "HTTP status " + std::to_string(status)};
  return {true, ""};
}
