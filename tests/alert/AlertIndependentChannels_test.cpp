// Channels deliver independently: a webhook receiver on 127.0.0.1 that
// takes the connection and never answers holds up its own channel only, for
// its own time limit; the program channel next to it delivers at once, also
// anomalies found while the webhook still hangs, and the ledger counts each
// alert once per channel.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <thread>

#include "tests/alert/AlertFixture.h"

namespace {

using namespace std::chrono_literals;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;
using Clock = std::chrono::steady_clock;

// Listens on 127.0.0.1 and never accepts: the kernel completes each
// connection, the request is sent, and no answer ever comes.
class SilentReceiver {
 public:
  SilentReceiver() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(listen(fd_, 16), 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
  }
  ~SilentReceiver() { close(fd_); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/hook"; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

constexpr int kWebhookTimeout = 10;

class AlertIndependentChannels : public AlertFixture {
 protected:
  // A program that appends each document to a file, one per line.
  std::string appending_script() const {
    const std::string path = dir.file("append");
    TempDir::write(path, "#!/bin/sh\ncat >> " + out() + "\necho >> " + out() + "\n");
    chmod(path.c_str(), 0755);
    return path;
  }
  std::string out() const { return dir.file("received"); }
  // The ids the program channel received, with how often each.
  std::map<std::string, int> exec_ids() const {
    std::map<std::string, int> ids;
    const std::string text = TempDir::read(out());
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
      ++ids[tsanomaly_test::string_member(tsanomaly_test::parse(text.substr(at, end - at)).get(), "id")];
    }
    return ids;
  }
  // Waits until the program channel has count distinct ids; answers when.
  Clock::time_point wait_for_exec(std::size_t count, Clock::duration deadline) const {
    const auto give_up = Clock::now() + deadline;
    while (Clock::now() < give_up) {
      if (access(out().c_str(), F_OK) == 0 && exec_ids().size() >= count) return Clock::now();
      std::this_thread::sleep_for(20ms);
    }
    return Clock::time_point::max();
  }
  std::string count_of(const std::string& where) const {
    return query("SELECT COUNT(*) AS N FROM ALERT_DELIVERY WHERE " + where)[0]["N"].text();
  }
};

TEST_F(AlertIndependentChannels, AHangingWebhookDelaysNeitherTheProgramChannelNorItsLaterAlerts) {
  const auto ids = detect_anomalies(8);
  ASSERT_GE(ids.size(), 4u);
  // The second half is found "later": kept aside until the webhook hangs.
  const std::string first_later = ids[ids.size() / 2];
  execute("CREATE TABLE LATER AS SELECT * FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID >= '" + first_later + "'");
  execute("DELETE FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID >= '" + first_later + "'");
  SilentReceiver silent;
  write_ini("[ALERT_WEBHOOK]\nURL=" + silent.url() + "\nTIMEOUT_SECONDS=" + std::to_string(kWebhookTimeout) +
            "\n[ALERT_EXEC]\nCOMMAND=" + appending_script() + "\n[ALERTS]\nGROUP_THRESHOLD=1000\n");
  const auto start = Clock::now();
  ChildProcess alert(alert_process());
  alert.start();
  const auto first_half = wait_for_exec(ids.size() / 2, 30s);
  execute("INSERT INTO ANOMALY_DATA SELECT * FROM LATER");
  const auto inserted = Clock::now();
  const auto second_half = wait_for_exec(ids.size(), 30s);
  const auto webhook_limit = std::chrono::seconds(kWebhookTimeout);
  const auto ms = [](Clock::duration d) { return std::chrono::duration_cast<std::chrono::milliseconds>(d).count(); };
  std::cout << "[ channels ] with the webhook hanging for " << kWebhookTimeout << " s, the program channel had "
            << ids.size() / 2 << " alerts " << ms(first_half - start) << " ms after start and "
            << ids.size() - ids.size() / 2 << " later ones " << ms(second_half - inserted) << " ms after they were found\n";
  EXPECT_LT(first_half - start, webhook_limit / 2) << "the program channel waited for the webhook";
  EXPECT_LT(second_half - inserted, webhook_limit / 2) << "later anomalies waited for the webhook";
  alert.send_signal(SIGTERM);
  alert.wait();
  for (const auto& [id, times] : exec_ids()) EXPECT_EQ(times, 1) << id << '\n' << alert.err();
  EXPECT_EQ(count_of("CHANNEL = 'exec' AND STATE = 1"), std::to_string(ids.size()));
  EXPECT_EQ(count_of("CHANNEL = 'webhook' AND STATE = 1"), "0");
  EXPECT_NE(alert.err().find("webhook: delivery failed: Operation timed out"), std::string::npos) << alert.err();
}

TEST_F(AlertIndependentChannels, OneCycleDeliversEveryChannelOnceAndWaitsForAll) {
  const auto ids = detect_anomalies(6);
  ASSERT_FALSE(ids.empty());
  receiver.start();
  receiver.delay_answers(50ms);
  write_ini(webhook_section() + "[ALERT_EXEC]\nCOMMAND=" + appending_script() + "\n[ALERTS]\nGROUP_THRESHOLD=1000\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  // --once has waited for both channels: everything is in by now.
  EXPECT_EQ(receiver.received().size(), ids.size()) << log_;
  EXPECT_EQ(exec_ids().size(), ids.size()) << log_;
  EXPECT_EQ(count_of("STATE = 1"), std::to_string(2 * ids.size()));
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_EQ(receiver.received().size(), ids.size()) << "the second cycle sent again";
}

}  // namespace
