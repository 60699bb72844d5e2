// BaculaDomain: a throwaway Bacula for one end-to-end test: a Director with
// an SQLite catalog (made by Debian's own script), a storage daemon with a
// File device and a file daemon, all on 127.0.0.1 at ports free when the
// test starts, every folder inside the test's temporary folder, and one
// backup job "files" of the folder data() whose RunScript is the shipped
// hook, queuing each job into every database named at construction (and a
// RunScript before it that fails the job on demand). The
// daemons run in the foreground and are killed when the object goes away.
#pragma once

#include <functional>
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
  // Starts the job at `level` (Full, Incremental) and returns once done()
  // holds (asked every 20 ms), which says the job and its RunScripts are
  // over: sooner than bconsole's wait. Throws when the Director refuses the
  // job or done() is still false after a minute.
  void run_job(const std::string& level, const std::function<bool()>& done);

  // While set, every job fails before it starts (its Before RunScript
  // exits 1), so Bacula records it with status E and runs the hook anyway.
  void fail_jobs(bool fail);

  std::string data() const { return folder_ + "/data"; }
  // The Director's log of every job, the hook's output included.
  std::string log() const { return folder_ + "/work/log"; }
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
