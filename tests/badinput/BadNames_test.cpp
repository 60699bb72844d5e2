// Client, policy and other names that are hostile to SQL, printf, log
// files, JSON or fixed buffers: quotes, percent signs, newlines, multi-byte
// and invalid UTF-8, NUL bytes and 10 KB lengths. Names travel as bound
// text, so each one must be matched, stored and reported byte for byte.
#include "tests/badinput/BadInputFixture.h"

namespace badinput {
namespace {

class BadNames : public BadInputTest {
 protected:
  // 40 usual history rows of the workload with these names, then a usual
  // job (accepted) and a far one (reported) of the same workload.
  void judge_usual_and_far_jobs(const RawCells& names) {
    history_of(40, names);
    queue_raw("k1", names);
    RawCells far = names;
    for (const auto& [column, value] : pass_test::kFarFeatures) far.emplace_back(column, value);
    far.emplace_back("JOB_ID", "43");
    queue_raw("k2", far);
    result = pass_capturing_stdout();
  }

  // The names as the history row of k1 and the payload of k2's anomaly
  // hold them, compared with what was queued.
  void expect_names_kept(const RawCells& names) {
    static const std::map<std::string, const char*> kMembers = {{"CLIENT", "clientName"},
                                                                 {"POLICY", "policyName"},
                                                                 {"POLICY_TYPE", "policyType"},
                                                                 {"SCHEDULE_NAME", "scheduleName"},
                                                                 {"DESTINATION_STORAGE_NAME", "storageName"}};
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(queue_keys(), Strings{"k2:1"});
    json_t* root = only_payload();
    ASSERT_NE(root, nullptr);
    for (const auto& [column, value] : names) {
      EXPECT_EQ(history_cell("k1", column), *value) << column;
      if (const auto member = kMembers.find(column); member != kMembers.end()) {
        EXPECT_EQ(attribute(root, member->second), *value) << member->second;
      }
    }
    json_decref(root);
    EXPECT_EQ(cell_of("ANOMALY_DATA", "DETECTION_KEY", "k2", "CLIENT"), *names[0].second);
    EXPECT_EQ(count("HIST_DATA"), 41);
  }

  PassOutput result;
};

TEST_F(BadNames, NamesWithQuotesAndSqlAreMatchedStoredAndReportedByteForByte) {
  const RawCells names = {{"CLIENT", "o'brien \"db\""},
                          {"POLICY", "p'); DROP TABLE HIST_DATA; --"},
                          {"SCHEDULE_NAME", "\\\"daily\\\""},
                          {"DESTINATION_STORAGE_NAME", "stu' OR '1'='1"}};
  judge_usual_and_far_jobs(names);
  expect_names_kept(names);
}

TEST_F(BadNames, NamesWithPercentSignsAreMatchedStoredReportedAndLoggedLiterally) {
  const RawCells names = {{"CLIENT", "%s%n%x%%"}, {"POLICY", "%d%n%p%999999999s"}};
  judge_usual_and_far_jobs(names);
  expect_names_kept(names);
  EXPECT_TRUE(has_line(result.log, info("Getting training set for detection client - %s%n%x%%, policy - "
                                        "%d%n%p%999999999s and job - 42.")))
      << testing::PrintToString(result.log);
}

TEST_F(BadNames, ExcludedClientWithPercentSignsIsLoggedLiterally) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=%s%n\n");
  queue_raw("k1", {{"CLIENT", "%S%N"}});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Ignoring client '%S%N' for detection as per configuration.")}));
  EXPECT_EQ(history_cell("k1", "CLIENT"), "%S%N");
}

TEST_F(BadNames, NamesWithNewlinesAreMatchedStoredAndReportedWholeWhileTheirLogLineStaysOneLine) {
  const RawCells names = {{"CLIENT", "c\n1"}, {"POLICY", "p\r\n1"}, {"SCHEDULE_NAME", "\n"}};
  judge_usual_and_far_jobs(names);
  expect_names_kept(names);
  // The log shows the line breaks of a name as escapes: one message, one line.
  EXPECT_TRUE(has_line(result.log, info("Getting training set for detection client - c\\n1, policy - p\\r\\n1 "
                                        "and job - 42.")))
      << testing::PrintToString(result.log);
  EXPECT_FALSE(has_line(result.log, "1 and job - 42."));
}

TEST_F(BadNames, MultiByteUtf8NamesAreMatchedStoredAndReportedIntact) {
  const RawCells names = {{"CLIENT", "Kundé-客户-😀"},
                          {"POLICY", "Политика"},
                          {"POLICY_TYPE", "Standard-ß"},
                          {"SCHEDULE_NAME", "毎日"},
                          {"DESTINATION_STORAGE_NAME", "stü-1"}};
  judge_usual_and_far_jobs(names);
  expect_names_kept(names);
}

// Names are lower-cased byte by byte with the C library in the "C" locale:
// only ASCII letters fold, so a non-ASCII letter matches only in its own
// case.
TEST_F(BadNames, NonAsciiLettersAreNotCaseFoldedSoAnExclusionMatchesThemOnlyAsWritten) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=KUNDÉ-1,Kundé-2\n");
  queue_raw("k1", {{"CLIENT", "Kundé-1"}});
  queue_raw("k2", {{"CLIENT", "KUNDé-2"}, {"JOB_ID", "43"}});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Ignoring client 'KUNDé-2' for detection as per configuration.")}));
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 2);
}

TEST_F(BadNames, TenKilobyteNamesAreMatchedStoredAndReportedWhole) {
  std::string long_policy;
  while (long_policy.size() < 10240) long_policy += "Политика-";
  const RawCells names = {{"CLIENT", std::string(10240, 'c')},
                          {"POLICY", long_policy},
                          {"SCHEDULE_NAME", std::string(10240, '%')},
                          {"DESTINATION_STORAGE_NAME", std::string(10240, '\'')}};
  judge_usual_and_far_jobs(names);
  expect_names_kept(names);
}

// The INI importer reads a line into a 4 KB buffer: a longer value is cut
// and ends the import, so a 10 KB client name cannot be excluded, and the
// settings after it are not read (the defaults apply).
TEST_F(BadNames, TenKilobyteClientNameCannotBeExcludedThroughTheConfigurationFileAndLaterSettingsAreLost) {
  const std::string client(10240, 'c');
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=" + client +
            "\n[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=50\n");
  history_of(40, {{"CLIENT", client}});
  queue_raw("k1", {{"CLIENT", client}});

  const Strings log = pass();

  EXPECT_FALSE(has_line_starting(log, info("Ignoring client"))) << testing::PrintToString(log);
  EXPECT_TRUE(has_line(log, info("Using sensitivity parameter 0")));
  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "CLIENT"), client);
}

// JSON strings must be UTF-8. A name in another encoding (here Latin-1, as
// an older backup server might write it) is still the job's name: the
// payload must carry it in some form rather than silently drop the member.
TEST_F(BadNames, InvalidUtf8NamesStillAppearInTheAnomalyPayload) {
  const std::string client = "m\xfcller-pc";  // Latin-1 "müller-pc"
  const std::string policy = "p\xc3";         // truncated UTF-8 sequence
  const std::string schedule = "t\xe4glich";  // Latin-1 "täglich"
  history_of(40, {{"CLIENT", client}, {"POLICY", policy}, {"SCHEDULE_NAME", schedule}});
  queue_raw("k2", {{"CLIENT", client}, {"POLICY", policy}, {"SCHEDULE_NAME", schedule}, {"JOB_ID", "43"},
                   {"NUM_FILES", "5000"}});

  pass();

  EXPECT_EQ(queue_keys(), Strings{"k2:1"});
  EXPECT_EQ(cell_of("ANOMALY_DATA", "DETECTION_KEY", "k2", "CLIENT"), client);
  const Rows stored = query("SELECT ANOMALY_PAYLOAD FROM ANOMALY_DATA");
  json_t* root = only_payload();
  ASSERT_NE(root, nullptr);
  for (const char* member : {"clientName", "policyName", "scheduleName"}) {
    EXPECT_TRUE(json_is_string(json_object_get(json_object_get(root, "Attributes"), member)))
        << member << " is missing from " << stored[0].at("ANOMALY_PAYLOAD").text();
  }
  json_decref(root);
}

TEST_F(BadNames, InvalidUtf8NamesAreMatchedAndStoredByteForByte) {
  const std::string client = "m\xfcller-pc";
  history_of(40, {{"CLIENT", client}});
  queue_raw("k1", {{"CLIENT", client}});

  EXPECT_TRUE(has_line(pass(), info("Anomaly not detected.")));
  EXPECT_EQ(history_cell("k1", "CLIENT"), client);
}

// A cell is read as a C string: a NUL byte ends it. The job is judged under
// the name before the NUL, and its history row carries that shorter name.
TEST_F(BadNames, NameWithANulByteIsCutAtTheNul) {
  queue_raw("k1", {{"CLIENT", std::string("c1\0hidden", 9)}});

  pass();

  EXPECT_EQ(queue_keys(), Strings{});
  EXPECT_EQ(history_cell("k1", "CLIENT"), "c1");
}

// The key is read the same way, so a queued key with a NUL byte would not
// address its own queue row and its history write would land on the job
// whose key is the part before the NUL. The schema may refuse such a key;
// if it takes it, the pass must still never overwrite another job's history.
TEST_F(BadNames, UniqueKeyWithANulByteNeverOverwritesTheHistoryOfAnotherJob) {
  history("k1", {{"JOB_ID", "7"}});
  const std::string key("k1\0x", 4);
  if (try_insert_raw("DATA_TO_PROCESS", job_cells(key, {{"JOB_ID", "8"}, {"CLIENT", "c2"}})) == SQLITE_DONE) {
    pass();
    pass();
    expect_every_job_kept({key});
  } else {
    EXPECT_EQ(queue_keys(), Strings{}) << "a refused row must not be queued";
  }
  EXPECT_EQ(history_cell("k1", "JOB_ID"), "7");
  EXPECT_EQ(count("HIST_DATA"), 1 + (cell_of("HIST_DATA", "UNIQUE_KEY", key, "UNIQUE_KEY") == key ? 1 : 0));
}

}  // namespace
}  // namespace badinput
