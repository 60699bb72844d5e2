// Signing in and out of the console in a browser, and the script that proves
// a page belongs to the browser that signed in.
#include "console/AccessToken.h"
#include "console/ConsoleScript.h"
#include "console/ConsoleServerImpl.h"

using httplib::Request;
using httplib::Response;
using namespace console_request;
using namespace console_server;

// The token leaves the address bar at once: the session cookie stands in
// for it, and the page it lands on claims the session's proof.
void ConsoleServer::Impl::sign_in(const Request& req, Response& res, const std::optional<std::string>& token) {
  if (!token || !access_token::equal(req.get_param_value("token"), *token)) {
    send_error(req, res, 401, "The token in this address is wrong. Open the address the console printed when it "
                              "started, with the token from its token file.");
    return;
  }
  const SessionTable::Opened session = sessions.open();
  res.set_header("Set-Cookie", std::string(kSessionCookie) + "=" + session.id + "; Path=/; HttpOnly; SameSite=Strict" +
                                   (tls() ? "; Secure" : ""));
  res.set_redirect(signed_in_target(req), 303);
}

void ConsoleServer::Impl::script_file(const Request&, Response& res) {
  res.set_content(std::string(console_script()), "text/javascript; charset=utf-8");
}

// The proof goes to the first claim only; later ones get nothing (204), so
// whoever replays the cookie after the page claimed it learns nothing.
void ConsoleServer::Impl::claim_proof(const Request& req, Response& res) {
  const auto proof = sessions.claim_proof(cookie(req, kSessionCookie));
  if (!proof) {
    res.status = 204;
    return;
  }
  res.set_content(*proof, "text/plain; charset=utf-8");
}

// Ends the session on the server, so the cookie is worthless wherever it went.
void ConsoleServer::Impl::sign_out(const Request& req, Response& res) {
  sessions.end(cookie(req, kSessionCookie));
  res.set_header("Set-Cookie", std::string(kSessionCookie) + "=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict" +
                                   (tls() ? "; Secure" : ""));
  res.set_content(console_pages::message_page("Signed out", "The session has ended. Open the token address to sign "
                                                            "in again."),
                  "text/html; charset=utf-8");
}
