// BaculaDomain: a throwaway Bacula for one end-to-end test: a Director with
// an SQLite catalog (made by Debian's own script), a storage daemon with a
// File device and a file daemon, all on 127.0.0.1 at ports free when the
// test starts, every folder inside the test's temporary folder, and one
// backup job "files" of the folder data() whose RunScript is the shipped
// hook, queuing each job into every database named at construction. The
// daemons run in the foreground and are killed when the object goes away.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace tsanomaly_test {

class BaculaDomain {
 public:
  // Configuration only; start() runs the daemons. `detector_databases` are
  // the databases the hook queues each job into (one RunScript each).
  BaculaDomain(const std::string& folder, std::vector<std::string> detector_databases);
  ~BaculaDomain();
  BaculaDomain(const BaculaDomain&) = delete;
  BaculaDomain& operator=(const BaculaDomain&) = delete;

  // Starts the three daemons and waits until the Director answers.
  void start();
  // Runs the job at `level` (Full, Incremental) and waits until it and its
  // RunScripts are done; the console's output.
  std::string run_job(const std::string& level);

  std::string data() const { return folder_ + "/data"; }
  std::string catalog() const { return folder_ + "/work/bacula.db"; }

 private:
  void write_configuration(const std::vector<std::string>& detector_databases);
  void create_catalog();
  std::string console(const std::string& commands);
  void start_daemon(const std::string& program, const std::string& config);

  std::string folder_;
  int director_port_ = 0;
  int file_daemon_port_ = 0;
  int storage_port_ = 0;
  std::vector<std::unique_ptr<ChildProcess>> daemons_;
};

}  // namespace tsanomaly_test
