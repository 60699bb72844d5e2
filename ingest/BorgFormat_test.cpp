#include "ingest/BorgFormat.h"

#include <gtest/gtest.h>

#include "tests/support/CollectedJobs.h"
#include "tests/support/TempDir.h"
#include "tests/support/ZoneScope.h"

namespace {

using tsanomaly_test::CollectedJobs;
using tsanomaly_test::ZoneScope;

// Outputs captured from the real tools (borg 1.2.4, borg 2.0.0b5, borgmatic
// 1.7.7) with TZ=UTC, so Borg 1's zone-less times are UTC.
std::string fixture(const std::string& name) {
  return tsanomaly_test::TempDir::read(tsanomaly_test::source_dir() + "/ingest/testdata/" + name);
}

CollectedJobs borg(const std::string& text) { return CollectedJobs::read(read_borg, text); }
CollectedJobs borgmatic(const std::string& text) { return CollectedJobs::read(read_borgmatic, text); }

// Every skipped record as "where: why" lines, for failure messages.
std::string skip_text(const CollectedJobs& sink) {
  std::string text;
  for (const CollectedJobs::Skip& skip : sink.skips) text += skip.where + ": " + skip.why + "\n";
  return text;
}

// A borg create --json object with the given archive members and stats.
std::string create_output(const std::string& archive_members, const std::string& stats) {
  return R"({"archive": {)" + archive_members + R"("stats": {)" + stats +
         R"(}}, "repository": {"location": "/srv/repo"}})";
}
const std::string kGoodStats = R"("original_size": 2048000, "deduplicated_size": 20480, "nfiles": 120)";
const std::string kGoodMembers = R"("id": "ab12", "name": "web-2026-03-01", "duration": 3.5, )";

TEST(BorgFormatTest, ACreateOutputOfBorgOneIsOneJob) {
  ZoneScope zone("UTC");
  const CollectedJobs sink = borg(fixture("borg1-create.json"));
  ASSERT_EQ(sink.jobs.size(), 1u) << skip_text(sink);
  EXPECT_TRUE(sink.skips.empty()) << skip_text(sink);
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool, "borg");
  EXPECT_EQ(job.tool_job_id, "43c8eee29082a589eb7a01824e5821cd5e2c253e206cd47ce75846f21779228a");
  EXPECT_EQ(job.client, "");  // create's output names no host: the options or the default fill it
  EXPECT_EQ(job.policy, "/tmp/borgcap/fx/repo::web01-home");
  EXPECT_EQ(job.start_time, 1772330400);
  EXPECT_EQ(job.end_time, 1772330400);
  EXPECT_DOUBLE_EQ(job.num_files, 30);
  EXPECT_DOUBLE_EQ(job.image_size_kb, 60586 / 1024.0);
  EXPECT_DOUBLE_EQ(job.kb_transferred, 60586 / 1024.0);
  EXPECT_DOUBLE_EQ(job.total_time_s, 0.01935);
  EXPECT_DOUBLE_EQ(job.dedup_rate, 1.0);  // a first backup stores everything it reads
}

TEST(BorgFormatTest, ACreateOutputOfBorgTwoNeedsNoCompressedSizeAndKeepsItsZone) {
  ZoneScope zone("America/New_York");  // the +00:00 of Borg 2's times wins over the local zone
  const CollectedJobs sink = borg(fixture("borg2-create.json"));
  ASSERT_EQ(sink.jobs.size(), 1u) << skip_text(sink);
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool_job_id, "06eadede4289fd97ef8343925c166f9eeb880b7c23717f938bf1ebd95eb906c4");
  EXPECT_EQ(job.policy, "/tmp/borgcap/fx/repo2::web01-home");
  EXPECT_EQ(job.start_time, 1772330400);
  EXPECT_DOUBLE_EQ(job.num_files, 29);
  EXPECT_DOUBLE_EQ(job.image_size_kb, 58575 / 1024.0);
}

TEST(BorgFormatTest, AnInfoOutputIsOneJobPerArchiveWithItsHost) {
  ZoneScope zone("UTC");
  for (const char* name : {"borg1-info.json", "borg2-info.json"}) {
    const CollectedJobs sink = borg(fixture(name));
    EXPECT_TRUE(sink.skips.empty()) << skip_text(sink);
    ASSERT_EQ(sink.jobs.size(), name[4] == '1' ? 3u : 2u) << name;
    for (std::size_t i = 0; i < sink.jobs.size(); ++i) {
      EXPECT_EQ(sink.jobs[i].client, "vm");
      EXPECT_EQ(sink.jobs[i].start_time, 1772330400 + static_cast<std::int64_t>(i) * 86400) << name;
      EXPECT_NE(sink.jobs[i].policy.find("::web01-home"), std::string::npos);
    }
  }
  const CollectedJobs sink = borg(fixture("borg1-info.json"));
  EXPECT_DOUBLE_EQ(sink.jobs[1].kb_transferred, 496 / 1024.0);
  EXPECT_DOUBLE_EQ(sink.jobs[1].dedup_rate, 58000 / 1024.0);  // less than a kilobyte added counts as one
}

TEST(BorgFormatTest, BorgmaticGivesOneJobPerRepository) {
  const CollectedJobs sink = borgmatic(fixture("borgmatic-create.json"));
  EXPECT_TRUE(sink.skips.empty()) << skip_text(sink);
  ASSERT_EQ(sink.jobs.size(), 2u);
  EXPECT_EQ(sink.jobs[0].policy, "/tmp/borgcap/fx/repo::web01-etc");
  EXPECT_EQ(sink.jobs[1].policy, "/tmp/borgcap/fx/repoB::web01-etc");
  EXPECT_EQ(sink.jobs[0].tool, "borg");  // the same archive read through borg info keeps its key
  EXPECT_EQ(sink.jobs[1].tool_job_id, "1ea176227eca58b7aad0e0d5c66f8fb1d11320bb696868324840badba6c0349f");
  EXPECT_DOUBLE_EQ(sink.jobs[0].kb_transferred, 517 / 1024.0);
}

TEST(BorgFormatTest, DocumentsWrittenOneAfterAnotherAreEachRead) {
  const CollectedJobs sink = borg(fixture("borg1-create.json") + fixture("borg2-create.json") + "\n\n");
  EXPECT_EQ(sink.jobs.size(), 2u) << skip_text(sink);
  EXPECT_TRUE(sink.skips.empty());
}

TEST(BorgFormatTest, NothingAddedScoresTheReadSizeInKilobytes) {
  const CollectedJobs sink = borg(create_output(kGoodMembers, R"("original_size": 2048000, "deduplicated_size": 0, "nfiles": 1)"));
  ASSERT_EQ(sink.jobs.size(), 1u) << skip_text(sink);
  EXPECT_DOUBLE_EQ(sink.jobs[0].dedup_rate, 2000.0);
  EXPECT_DOUBLE_EQ(sink.jobs[0].kb_transferred, 0.0);
}

TEST(BorgFormatTest, APasswordInTheRepositoryUrlIsNotKept) {
  const CollectedJobs sink = borg(R"({"archive": {)" + kGoodMembers + R"("stats": {)" + kGoodStats +
                                  R"(}}, "repository": {"location": "ssh://u:pw@host/repo"}})");
  ASSERT_EQ(sink.jobs.size(), 1u) << skip_text(sink);
  EXPECT_EQ(sink.jobs[0].policy, "ssh://u@host/repo::web");
}

TEST(BorgFormatTest, EmptyInputIsOneClearMessage) {
  for (const char* empty : {"", "  \n\n"}) {
    const CollectedJobs sink = borg(empty);
    EXPECT_TRUE(sink.jobs.empty());
    ASSERT_EQ(sink.skips.size(), 1u);
    EXPECT_EQ(sink.skips[0].where, "input");
    EXPECT_NE(sink.skips[0].why.find("empty"), std::string::npos);
  }
}

TEST(BorgFormatTest, TruncatedJsonDeliversTheDocumentsBeforeIt) {
  const std::string whole = fixture("borg2-create.json");
  const CollectedJobs sink = borg(fixture("borg1-create.json") + whole.substr(0, whole.size() / 2));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].where, "document 2");
  EXPECT_NE(sink.skips[0].why.find("not JSON"), std::string::npos) << sink.skips[0].why;
}

TEST(BorgFormatTest, AnotherToolsOutputIsNamedOnceAndNotRead) {
  const std::string restic =
      R"({"message_type":"status","percent_done":0.5})" "\n"
      R"({"message_type":"summary","files_new":3,"snapshot_id":"4f2a"})" "\n";
  const CollectedJobs sink = borg(restic);
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("not borg create --json or borg info --json"), std::string::npos);
  const CollectedJobs as_borgmatic = borgmatic(fixture("borg1-create.json"));
  EXPECT_TRUE(as_borgmatic.jobs.empty());
  ASSERT_EQ(as_borgmatic.skips.size(), 1u);
  EXPECT_NE(as_borgmatic.skips[0].why.find("not borgmatic create --json"), std::string::npos);
  EXPECT_EQ(borgmatic("duplicity says hello\n").skips.size(), 1u);
}

TEST(BorgFormatTest, BadValuesSkipTheirArchiveAndNameIt) {
  const std::string bad_stats[] = {
      R"("original_size": -1, "deduplicated_size": 0, "nfiles": 1)",
      R"("original_size": 1e300, "deduplicated_size": 0, "nfiles": 1)",
      R"("original_size": 123456789012345678901234567890, "deduplicated_size": 0, "nfiles": 1)",
      R"("original_size": "12", "deduplicated_size": 0, "nfiles": 1)",
      R"("original_size": 12, "nfiles": 1)",
      R"("original_size": 12, "deduplicated_size": 0, "nfiles": null)",
  };
  for (const std::string& stats : bad_stats) {
    const std::string good = create_output(kGoodMembers, kGoodStats);
    const CollectedJobs sink = borg(good + create_output(R"("id": "cd34", "name": "bad-1", "duration": 1, )", stats) + good);
    EXPECT_EQ(sink.jobs.size(), 2u) << stats;
    ASSERT_EQ(sink.skips.size(), 1u) << stats;
    EXPECT_EQ(sink.skips[0].where, "archive bad-1 (document 2)") << stats;
  }
}

TEST(BorgFormatTest, BadMembersOfTheArchiveSkipIt) {
  const std::string bad_members[] = {
      R"("name": "no-id", "duration": 1, )",
      R"("id": "", "duration": 1, )",
      R"("id": 42, "duration": 1, )",
      R"("id": "ab", "duration": -3, )",
      R"("id": "ab", "duration": "long", )",
      R"("id": "ab", "duration": 1, "start": "yesterday", )",
      R"("id": "ab", "duration": 1, "end": "2026-13-01T00:00:00", )",
  };
  for (const std::string& members : bad_members) {
    const CollectedJobs sink = borg(create_output(members, kGoodStats));
    EXPECT_TRUE(sink.jobs.empty()) << members;
    EXPECT_EQ(sink.skips.size(), 1u) << members;
  }
  EXPECT_EQ(borg(R"({"archive": {"id": "ab", "duration": 1}})").skips.at(0).why, "no \"stats\" object");
}

TEST(BorgFormatTest, OneBadArchiveOfAnInfoListLeavesTheOthers) {
  ZoneScope zone("UTC");
  std::string info = fixture("borg1-info.json");
  const std::size_t at = info.find("\"nfiles\": 29");
  ASSERT_NE(at, std::string::npos);
  info.replace(at, 12, "\"nfiles\": -29");
  const CollectedJobs sink = borg(info);
  EXPECT_EQ(sink.jobs.size(), 2u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].where, "archive web01-home-2026-03-02T02:00:00 (document 1, archive 2)");
  EXPECT_EQ(sink.skips[0].why, "\"nfiles\" is out of range");
}

TEST(BorgFormatTest, NamesThatAreNotUtf8AreRepairedAndTheArchiveKept) {
  const std::string raw_byte = create_output(R"("id": "ab", "name": "caf)" "\xE9" R"(-1", "hostname": "h)" "\xFF" R"(", "duration": 1, )", kGoodStats);
  const std::string python_escape = create_output(R"("id": "cd", "name": "caf\udce9-1", "hostname": "ok\ud83d\ude00", "duration": 1, )", kGoodStats);
  const CollectedJobs sink = borg(raw_byte + python_escape);
  ASSERT_EQ(sink.jobs.size(), 2u) << skip_text(sink);
  EXPECT_EQ(sink.jobs[0].policy, "/srv/repo::caf\xEF\xBF\xBD");
  EXPECT_EQ(sink.jobs[0].client, "h\xEF\xBF\xBD");
  EXPECT_EQ(sink.jobs[1].policy, "/srv/repo::caf\xEF\xBF\xBD");
  EXPECT_EQ(sink.jobs[1].client, "ok\xF0\x9F\x98\x80");  // a proper surrogate pair is kept
}

TEST(BorgFormatTest, ATenMegabyteNameSkipsItsArchiveAndNotTheOthers) {
  const std::string good = create_output(kGoodMembers, kGoodStats);
  const std::string huge = create_output(R"("id": "ab", "duration": 1, "hostname": ")" + std::string(10 << 20, 'h') + "\", ", kGoodStats);
  const CollectedJobs sink = borg(good + "\n" + huge + "\n" + good);
  EXPECT_EQ(sink.jobs.size(), 2u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].where, "document 2");
  EXPECT_NE(sink.skips[0].why.find("longer than 1024 bytes"), std::string::npos);
}

TEST(BorgFormatTest, AnInputPastTheBoundIsRefusedWhole) {
  const CollectedJobs sink = borg(std::string((64 << 20) + 1, ' '));
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("64 MiB"), std::string::npos);
}

TEST(BorgFormatTest, ATenMegabyteLineOfGarbageIsNotJson) {
  const CollectedJobs sink = borg(fixture("borg1-create.json") + std::string(10 << 20, 'x'));
  EXPECT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].why.find("not JSON"), std::string::npos);
}

}  // namespace
