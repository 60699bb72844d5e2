// Unit tests of the console's pure parts: the --listen grammar and what is
// loopback, percent-encoding of ids, the metrics text, the token compare.
#include <gtest/gtest.h>

#include "console/AccessToken.h"
#include "http/ListenAddress.h"
#include "console/MetricsText.h"
#include "console/UrlText.h"

TEST(ListenAddressTest, TakesIpLiteralsAndJudgesLoopback) {
  const auto v4 = parse_listen_address("127.0.0.1:8470");
  ASSERT_TRUE(v4);
  EXPECT_EQ(v4->host, "127.0.0.1");
  EXPECT_EQ(v4->port, 8470);
  EXPECT_TRUE(v4->loopback);
  EXPECT_TRUE(parse_listen_address("127.8.9.10:1")->loopback);
  EXPECT_TRUE(parse_listen_address("localhost:0")->loopback);
  const auto v6 = parse_listen_address("[::1]:8470");
  ASSERT_TRUE(v6);
  EXPECT_EQ(v6->host, "::1");
  EXPECT_TRUE(v6->loopback);
  EXPECT_FALSE(parse_listen_address("0.0.0.0:8470")->loopback);
  EXPECT_FALSE(parse_listen_address("[::]:8470")->loopback);
  EXPECT_FALSE(parse_listen_address("192.168.1.5:80")->loopback);
  for (const char* bad : {"", "8470", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "host:80",
                          "::1:80", "[::1]", "127.0.0.1:80x", "[nope]:80", "127.1:80 "}) {
    EXPECT_FALSE(parse_listen_address(bad)) << bad;
  }
}

TEST(UrlTextTest, EncodesEveryByteButTheUnreservedOnes) {
  EXPECT_EQ(percent_encode("4711_1600000000"), "4711_1600000000");
  EXPECT_EQ(percent_encode("a/b?c#d e%\xff"), "a%2Fb%3Fc%23d%20e%25%FF");
  EXPECT_EQ(anomaly_path("x/y"), "/anomalies/x%2Fy");
}

TEST(MetricsTextTest, WritesHelpTypeAndEscapedSamples) {
  const std::vector<MetricFamily> families{
      {"tsanomaly_a", "Help with \\ and\nnewline.", "gauge", {{{}, 3}}},
      {"tsanomaly_b", "By label.", "gauge", {{{{"state", "x\"y\\z\nw"}}, 1.5}, {{{"state", "open"}, {"k", "v"}}, 0}}},
  };
  EXPECT_EQ(metrics_text(families),
            "# HELP tsanomaly_a Help with \\\\ and\\nnewline.\n# TYPE tsanomaly_a gauge\ntsanomaly_a 3\n"
            "# HELP tsanomaly_b By label.\n# TYPE tsanomaly_b gauge\ntsanomaly_b{state=\"x\\\"y\\\\z\\nw\"} 1.5\n"
            "tsanomaly_b{state=\"open\",k=\"v\"} 0\n");
}

TEST(AccessTokenTest, ComparesWholeTokensAndMakesFreshOnes) {
  EXPECT_TRUE(access_token::equal("abcdef", "abcdef"));
  EXPECT_FALSE(access_token::equal("abcdef", "abcdeg"));
  EXPECT_FALSE(access_token::equal("abcdef", "abcde"));
  EXPECT_FALSE(access_token::equal("", "a"));
  const std::string a = access_token::random_hex(32);
  EXPECT_EQ(a.size(), 64u);
  EXPECT_EQ(a.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(a, access_token::random_hex(32));
}
