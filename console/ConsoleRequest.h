// ConsoleRequest: what the console reads from a request (cookie, bearer
// token, bounded filter parameters, the list filter) and how it answers one
// it refuses. Malformed input throws RequestError with the status to send.
#pragma once

#include <httplib.h>

#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>

#include "console/ConsolePages.h"
#include "console/ConsoleStore.h"

namespace console_request {

using httplib::Request;
using httplib::Response;

// A request the console answers with an error status and a message.
struct RequestError : std::runtime_error {
  RequestError(int status, const std::string& message) : std::runtime_error(message), status(status) {}
  int status;
};

// The reason phrase of the statuses the console sends.
std::string status_title(int status);
bool is_api(const Request& req);
// The error as JSON for the API and /metrics, as a page otherwise.
void send_error(const Request& req, Response& res, int status, const std::string& message);

std::string cookie(const Request& req, const std::string& name);
std::optional<std::string> bearer(const Request& req);
// A secret sent with a form: the urlencoded body's field, else the header;
// never the query string.
std::string sent_secret(const Request& req, const char* field, const char* header);
// A filter value as sent, bounded in size.
std::string param(const Request& req, const char* name);
long long number_param(const Request& req, const char* name, long long fallback, long long min, long long max);
// The filter of the list page and of GET /api/v1/anomalies.
ListQuery list_query(const Request& req, console_pages::FilterForm& form);
// Where a sign-in through ?token= lands: the page asked for with its
// parameters but the token.
std::string signed_in_target(const Request& req);
// What the page says after a verdict form was sent, by the code in its URL.
std::string result_sentence(const std::string& code);

}  // namespace console_request
