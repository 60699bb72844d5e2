#include "http/HttpServer.h"

#include <microhttpd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "http/RequestDeadlines.h"

namespace {

// What the server keeps of one request while it arrives.
struct PendingRequest {
  std::size_t uri_bytes = 0;
  bool head_seen = false;
  std::size_t body_bytes = 0;  // as sent, kept or not
  std::string body;            // kept while within the limit
};

MHD_Result add_value(void* cls, MHD_ValueKind, const char* key, const char* value) {
  static_cast<httplib::Headers*>(cls)->emplace(key, value == nullptr ? "" : value);
  return MHD_YES;
}

std::size_t declared_length(MHD_Connection* connection) {
  const char* text = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  return text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
}

httplib::Request request_of(MHD_Connection* connection, const char* url, const char* method, const char* version,
                            std::string body) {
  httplib::Request req;
  req.method = method;
  req.path = url;
  req.version = version;
  MHD_get_connection_values(connection, MHD_HEADER_KIND, add_value, &req.headers);
  MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, add_value, &req.params);
  req.body = std::move(body);
  if (req.get_header_value("Content-Type").rfind("application/x-www-form-urlencoded", 0) == 0) {
    httplib::detail::parse_query_text(req.body, req.params);
  }
  return req;
}

MHD_Result send(MHD_Connection* connection, const httplib::Response& res) {
  MHD_Response* response =
      MHD_create_response_from_buffer(res.body.size(), const_cast<char*>(res.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  for (const auto& [name, value] : res.headers) {
    // The server counts the length itself; a header it refuses (a line
    // break in it) is dropped rather than sent broken.
    if (name != MHD_HTTP_HEADER_CONTENT_LENGTH) MHD_add_response_header(response, name.c_str(), value.c_str());
  }
  const MHD_Result queued =
      MHD_queue_response(connection, static_cast<unsigned>(res.status > 0 ? res.status : 500), response);
  MHD_destroy_response(response);
  return queued;
}

}  // namespace

struct HttpServer::Impl {
  HttpLimits limits;
  HttpHandlers handlers;
  RequestDeadlines deadlines;
  MHD_Daemon* daemon = nullptr;

  Impl(const HttpLimits& l, HttpHandlers h)
      : limits(l), handlers(std::move(h)), deadlines(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  l.request_deadline)) {}

  static void* on_uri(void*, const char* uri, MHD_Connection*) {
    auto* pending = new PendingRequest;
    pending->uri_bytes = std::strlen(uri);
    return pending;
  }

  static void on_connection(void* cls, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode code) {
    auto& self = *static_cast<Impl*>(cls);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
      if (info != nullptr) self.deadlines.waiting(connection, info->connect_fd);
    } else {
      self.deadlines.closed(connection);
    }
  }

  // A request ended (answered or not): the connection's next one is on the clock.
  static void on_completed(void* cls, MHD_Connection* connection, void** context, MHD_RequestTerminationCode) {
    delete static_cast<PendingRequest*>(*context);
    *context = nullptr;
    auto& self = *static_cast<Impl*>(cls);
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (info != nullptr) self.deadlines.waiting(connection, info->connect_fd);
  }

  static MHD_Result on_request(void* cls, MHD_Connection* connection, const char* url, const char* method,
                               const char* version, const char* upload, std::size_t* upload_size, void** context) {
    auto& self = *static_cast<Impl*>(cls);
    if (*context == nullptr) return MHD_NO;  // every request passes on_uri first
    auto& pending = *static_cast<PendingRequest*>(*context);
    if (!pending.head_seen) {
      pending.head_seen = true;
      // A body too large even to drop is refused before it is read.
      if (declared_length(connection) <= self.limits.max_discarded_body_bytes) return MHD_YES;
      return self.refuse(connection, 413, url, method, version);
    }
    if (*upload_size > 0) {
      pending.body_bytes += *upload_size;
      if (pending.body_bytes > self.limits.max_discarded_body_bytes) return MHD_NO;
      if (pending.body_bytes <= self.limits.max_body_bytes) pending.body.append(upload, *upload_size);
      *upload_size = 0;
      return MHD_YES;
    }
    self.deadlines.received(connection);
    if (pending.uri_bytes > self.limits.max_uri_bytes) return self.refuse(connection, 414, url, method, version);
    if (pending.body_bytes > self.limits.max_body_bytes) return self.refuse(connection, 413, url, method, version);
    httplib::Request req = request_of(connection, url, method, version, std::move(pending.body));
    httplib::Response res;
    self.handlers.answer(req, res);
    return send(connection, res);
  }

  MHD_Result refuse(MHD_Connection* connection, int status, const char* url, const char* method,
                    const char* version) {
    httplib::Request req = request_of(connection, url, method, version, "");
    httplib::Response res;
    res.status = status;
    handlers.refuse(req, res);
    return send(connection, res);
  }
};

HttpServer::HttpServer(int listen_fd, const HttpLimits& limits, const std::optional<Tls>& tls, HttpHandlers handlers)
    : impl_(std::make_unique<Impl>(limits, std::move(handlers))) {
  Impl& impl = *impl_;
  unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL;
  if (tls) flags |= MHD_USE_TLS;
  const MHD_OptionItem tls_options[] = {
      {tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END, 0, tls ? const_cast<char*>(tls->cert_pem.c_str()) : nullptr},
      {tls ? MHD_OPTION_HTTPS_MEM_KEY : MHD_OPTION_END, 0, tls ? const_cast<char*>(tls->key_pem.c_str()) : nullptr},
      {MHD_OPTION_END, 0, nullptr},
  };
  impl.daemon = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &Impl::on_request, &impl, MHD_OPTION_LISTEN_SOCKET, listen_fd,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, limits.connection_memory, MHD_OPTION_CONNECTION_LIMIT, limits.connections,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, limits.connections_per_client, MHD_OPTION_THREAD_POOL_SIZE, limits.threads,
      MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(limits.idle_timeout.count()),
      MHD_OPTION_URI_LOG_CALLBACK, &Impl::on_uri, nullptr, MHD_OPTION_NOTIFY_CONNECTION, &Impl::on_connection,
      &impl, MHD_OPTION_NOTIFY_COMPLETED, &Impl::on_completed, &impl, MHD_OPTION_ARRAY, tls_options,
      MHD_OPTION_END);
  if (impl.daemon == nullptr) {
    ::close(listen_fd);
    throw std::runtime_error(tls ? "cannot serve HTTPS: the TLS certificate or key is not usable"
                                 : "cannot start the HTTP server");
  }
}

HttpServer::~HttpServer() { MHD_stop_daemon(impl_->daemon); }
