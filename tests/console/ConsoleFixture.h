// Fixture for the console's end-to-end tests: a detector database filled by
// the built tsanomalyctl (simulate, then a real detection pass), the console
// started on it as a child process on a free loopback port, and an HTTP
// client on real sockets. The anomaly ids the pass reported are read back.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

class ConsoleFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  std::string db() const { return dir.file("anomaly.db"); }
  // Runs tsanomalyctl with these arguments; its exit code.
  int ctl(const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr);
  // One detection pass over the queue.
  void detect();
  // Starts the console with extra options; false when it did not print its
  // address. Fills url, port and token.
  bool start(const std::vector<std::string>& options = {});
  // SIGTERM and the exit status.
  int stop();

  httplib::Client client() const;
  httplib::Headers bearer() const { return {{"Authorization", "Bearer " + token}}; }
  // Signs in through ?token=, claims the session's proof as the landing
  // page would (kept in proofs), and returns the session cookie ("name=value").
  std::string sign_in();
  // The body of a verdict form on an anomaly's page, sent from the signed-in page.
  std::string form(const std::string& cookie, const std::string& id);
  // The CSRF token of the forms on an anomaly's page.
  std::string csrf_of_page(const std::string& cookie, const std::string& id);

  // Ids of the reported anomalies, the latest reported first.
  std::vector<std::string> anomaly_ids() const;
  long long count(const std::string& sql) const;
  // Reports an anomaly as the detector would, for a client name of the
  // test's choosing; its job is queued (processed). Returns its id.
  std::string add_anomaly(const std::string& client, const std::string& job_id);
  // Queues, for n workloads that had a job reported, a later job on storage
  // the workload moved to: with the built-in settings the next pass cannot
  // judge them (two-feature history, five features offered).
  void queue_moved_jobs(int n);

  tsanomaly_test::TempDir dir;
  std::unique_ptr<tsanomaly_test::ChildProcess> server;
  std::string url;  // "http://127.0.0.1:PORT"
  int port = 0;
  std::string token;
  std::map<std::string, std::string> proofs;  // by session cookie
};
