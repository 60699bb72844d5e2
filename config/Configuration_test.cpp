#include "config/Configuration.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;
using Entries = std::map<std::string, std::set<std::string>>;
using Items = std::set<std::string>;

namespace {

const char kModel[] = "ANOMALY_MODEL_SETTINGS";

// Each test writes its own INI file into a fresh folder.
class ConfigurationFile : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("tsanomalydetect.ini"); }

  // Writes text as the INI file and returns its path.
  std::string write(const std::string& text) const {
    TempDir::write(path(), text);
    return path();
  }

  Items list(const Configuration& config, const std::string& section, const std::string& key) const {
    Items values;
    config.get_config_multiple_values(section, key, values);
    return values;
  }

  Entries dynamic(const Configuration& config, const std::string& section) const {
    Entries entries;
    config.get_config_dynamic_keys_multiple_values(section, entries);
    return entries;
  }

  TempDir dir;
};

}  // namespace

// --- Behaviour of the reader itself ------------------------------------------

TEST_F(ConfigurationFile, NoFileGivesTableDefaultOrEmptyString) {
  Configuration config(dir.file("absent.ini"), 1);
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_EQ(config.get_config("META_DATA", "LOG_MODEL_DATA"), "");
}

TEST_F(ConfigurationFile, ValueInFileReplacesDefault) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=50\n"), 1);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "50");
}

TEST_F(ConfigurationFile, ConfigTypeOtherThanOneReadsEveryMissingKeyAsEmpty) {
  for (int32_t type : {0, 2, -1}) {
    Configuration config(dir.file("absent.ini"), type);
    EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "") << type;
    EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "") << type;
    EXPECT_EQ(config.get_config("ANOMALY_DETECTION_SENSITIVITY", "SENSITIVITY_PERCENTAGE"), "") << type;
  }
}

TEST_F(ConfigurationFile, DuplicateListItemsCollapseLowerCased) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=HostA,hostB,HostA\n"), 1);
  EXPECT_EQ(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME"), (Items{"hosta", "hostb"}));
}

TEST_F(ConfigurationFile, SpaceAfterCommaStaysInFrontOfNextItem) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=a, b\n"), 1);
  EXPECT_EQ(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME"), (Items{"a", " b"}));
}

TEST_F(ConfigurationFile, DynamicEntryNameAndItemsAreLowerCased) {
  Configuration config(write("[DISABLE_FEATURE_PER_POLICY_TYPE]\nStandard=num_files,IMAGE_SIZE\n"), 1);
  EXPECT_EQ(dynamic(config, "DISABLE_FEATURE_PER_POLICY_TYPE"),
            (Entries{{"standard", {"image_size", "num_files"}}}));
}

TEST_F(ConfigurationFile, SectionOnlyInOtherLetterCaseFallsBackToDefault) {
  Configuration config(write("[anomaly_model_settings]\nMAX_OBSERVATIONS_FOR_TRAINING=7\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_EQ(config.get_config("anomaly_model_settings", "MAX_OBSERVATIONS_FOR_TRAINING"), "7");
}

TEST_F(ConfigurationFile, EveryTypeOneDefaultIsInTheTable) {
  Configuration config(dir.file("absent.ini"), 1);
  EXPECT_EQ(config.get_config("ANOMALY_DETECTION_FUNCTIONALITY", "DISABLE_ANOMALY_DETECTION"), "0");
  EXPECT_EQ(config.get_config("ANOMALY_DETECTION_FUNCTIONALITY", "DISABLE_DETECTION_SERVICE"), "1");
  EXPECT_EQ(config.get_config("ANOMALY_DETECTION_FUNCTIONALITY", "DISABLE_ALERT_SERVICE"), "1");
  EXPECT_EQ(config.get_config("ANOMALY_DETECTION_SENSITIVITY", "SENSITIVITY_PERCENTAGE"), "0");
  EXPECT_EQ(config.get_config("DATABASE_SETTINGS", "PURGE_DATA_INTERVAL_IN_MONTHS"), "12");
  EXPECT_EQ(config.get_config("DATA_GATHER_SETTINGS", "LIVE_DATA_GATHER_FREQUENCY_IN_MIN"), "15");
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "30");
  EXPECT_EQ(config.get_config(kModel, "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY"), "365");
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
}

TEST_F(ConfigurationFile, DefaultsAreMatchedWithExactLetterCase) {
  Configuration config(dir.file("absent.ini"), 1);
  EXPECT_EQ(config.get_config("anomaly_model_settings", "MAX_OBSERVATIONS_FOR_TRAINING"), "");
  EXPECT_EQ(config.get_config(kModel, "max_observations_for_training"), "");
}

TEST_F(ConfigurationFile, MissingFileFailsImportAndListsStayEmpty) {
  Configuration config(dir.file("absent.ini"), 1);
  EXPECT_EQ(config.get_import_status(), -1);
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
  EXPECT_TRUE(dynamic(config, "EXCLUDE_CLIENT_POLICY").empty());
}

TEST_F(ConfigurationFile, EmptyPathFailsImportLikeMissingFile) {
  Configuration config("", 1);
  EXPECT_EQ(config.get_import_status(), -1);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "30");
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
}

TEST_F(ConfigurationFile, DirectoryAsPathFailsImportLikeMissingFile) {
  Configuration config(dir.path(), 1);
  EXPECT_EQ(config.get_import_status(), -1);
  EXPECT_EQ(config.get_config(kModel, "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY"), "365");
}

TEST_F(ConfigurationFile, KeyMissingFromExistingSectionFallsBackToDefault) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=50\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_EQ(config.get_config(kModel, "NOT_A_KEY"), "");
}

TEST_F(ConfigurationFile, ValuesInFileAreReadForConfigTypeWithoutDefaults) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=50\n"), 2);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "50");
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "");
}

TEST_F(ConfigurationFile, GetConfigKeepsCaseAndInnerSpaces) {
  Configuration config(write("[META_DATA]\nNOTE=Keep  This Mixed\tCase\n"), 1);
  EXPECT_EQ(config.get_config("META_DATA", "NOTE"), "Keep  This Mixed\tCase");
}

TEST_F(ConfigurationFile, EmptyValueInFileIsReturnedInsteadOfDefault) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=\n"), 1);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "");
}

TEST_F(ConfigurationFile, EmptyListItemsAreKeptAndTrailingCommaAddsNothing) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=,a,,b,\n"), 1);
  EXPECT_EQ(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME"), (Items{"", "a", "b"}));
}

TEST_F(ConfigurationFile, LoneCommaYieldsOneEmptyItem) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=,\n"), 1);
  EXPECT_EQ(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME"), (Items{""}));
}

TEST_F(ConfigurationFile, EmptyListValueAddsNoItem) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=\n"), 1);
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
}

TEST_F(ConfigurationFile, ListItemsAreAddedToWhatTheSetHolds) {
  Configuration config(write("[DISABLE_POLICY_TYPE]\nPOLICY_TYPE=Oracle,DB2\n"), 1);
  Items values{"standard", "db2"};
  config.get_config_multiple_values("DISABLE_POLICY_TYPE", "POLICY_TYPE", values);
  EXPECT_EQ(values, (Items{"db2", "oracle", "standard"}));
}

TEST_F(ConfigurationFile, ListLookupNeverUsesDefaults) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=a\n"), 1);
  EXPECT_TRUE(list(config, kModel, "MAX_OBSERVATIONS_FOR_TRAINING").empty());
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "OTHER_KEY").empty());
  EXPECT_TRUE(list(config, "DISABLE_POLICY_TYPE", "POLICY_TYPE").empty());
}

TEST_F(ConfigurationFile, DynamicSectionYieldsEveryEntry) {
  Configuration config(write("[EXCLUDE_CLIENT_POLICY]\n"
                             "client1=Pol_A,pol_b\n"
                             "Client2=nightly\n"
                             "client3.example.com=weekly, monthly,\n"),
                       1);
  EXPECT_EQ(dynamic(config, "EXCLUDE_CLIENT_POLICY"), (Entries{{"client1", {"pol_a", "pol_b"}},
                                                               {"client2", {"nightly"}},
                                                               {"client3.example.com", {" monthly", "weekly"}}}));
}

TEST_F(ConfigurationFile, DynamicEntryWithEmptyValueMapsToEmptySet) {
  Configuration config(write("[EXCLUDE_CLIENT_POLICY]\nclient1=\n"), 1);
  EXPECT_EQ(dynamic(config, "EXCLUDE_CLIENT_POLICY"), (Entries{{"client1", {}}}));
}

TEST_F(ConfigurationFile, DynamicEntryReplacesSameNameAndKeepsOthers) {
  Configuration config(write("[EXCLUDE_CLIENT_POLICY]\nClient1=new\n"), 1);
  Entries entries{{"client1", {"old"}}, {"client9", {"kept"}}};
  config.get_config_dynamic_keys_multiple_values("EXCLUDE_CLIENT_POLICY", entries);
  EXPECT_EQ(entries, (Entries{{"client1", {"new"}}, {"client9", {"kept"}}}));
}

TEST_F(ConfigurationFile, DynamicLookupOfMissingSectionLeavesMapUntouched) {
  Configuration config(write("[EXCLUDE_CLIENTS]\nCLIENT_NAME=a\n"), 1);
  Entries entries{{"client9", {"kept"}}};
  config.get_config_dynamic_keys_multiple_values("EXCLUDE_CLIENT_POLICY", entries);
  EXPECT_EQ(entries, (Entries{{"client9", {"kept"}}}));
}

TEST_F(ConfigurationFile, EachInstanceSeesTheFileAsItWasWhenBuilt) {
  write("[META_DATA]\nLOG_MODEL_DATA=0\n");
  Configuration before(path(), 1);
  write("[META_DATA]\nLOG_MODEL_DATA=1\n");
  Configuration after(path(), 1);
  EXPECT_EQ(before.get_config("META_DATA", "LOG_MODEL_DATA"), "0");
  EXPECT_EQ(after.get_config("META_DATA", "LOG_MODEL_DATA"), "1");
}

// Each pass owns its reader; a copy would share nothing useful and ACE's heap
// cannot be copied anyway.
static_assert(!std::is_copy_constructible_v<Configuration>);
static_assert(!std::is_copy_assignable_v<Configuration>);

// --- ACE's INI dialect, as the reader then sees it ----------------------------

TEST_F(ConfigurationFile, CommentAndBlankLinesAreSkipped) {
  Configuration config(write("; leading comment\n"
                             "[ANOMALY_MODEL_SETTINGS]\n"
                             "# hash comment\n"
                             "\n"
                             "   \n"
                             ";MAX_OBSERVATIONS_FOR_TRAINING=1\n"
                             "  # DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY=2\n"
                             "MIN_OBSERVATIONS_FOR_TRAINING=50\n"),
                       1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "50");
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_EQ(config.get_config(kModel, "DAYS_FOR_LAST_BACKUP_TO_IGNORE_ANOMALY"), "365");
}

TEST_F(ConfigurationFile, CommentAfterValueBelongsToTheValue) {
  Configuration config(write("[S]\nA=x ; note\nB=y # note\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config("S", "A"), "x ; note");
  EXPECT_EQ(config.get_config("S", "B"), "y # note");
}

TEST_F(ConfigurationFile, BlanksAroundNameAndValueAreTrimmed) {
  Configuration config(write("[S]\n  \tA  =  two words \t\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config("S", "A"), "two words");
}

TEST_F(ConfigurationFile, EnclosingDoubleQuotesAreStripped) {
  Configuration config(write("[S]\nA=\"  padded, list \"\nB=\"half\nC=say \"hi\"\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config("S", "A"), "  padded, list ");
  EXPECT_EQ(config.get_config("S", "B"), "\"half");
  EXPECT_EQ(config.get_config("S", "C"), "say \"hi\"");
  EXPECT_EQ(list(config, "S", "A"), (Items{"  padded", " list "}));
}

TEST_F(ConfigurationFile, ValueRunsToLineEndIncludingFurtherEqualsSigns) {
  Configuration config(write("[S]\nA=1 = 2\n"), 1);
  EXPECT_EQ(config.get_config("S", "A"), "1 = 2");
}

TEST_F(ConfigurationFile, WindowsLineEndingsAreTrimmed) {
  Configuration config(write("[S]\r\nA=1\r\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config("S", "A"), "1");
}

TEST_F(ConfigurationFile, LastLineWithoutNewlineIsRead) {
  Configuration config(write("[S]\nA=1"), 1);
  EXPECT_EQ(config.get_config("S", "A"), "1");
}

TEST_F(ConfigurationFile, SectionNameKeepsBlanksInsideBrackets) {
  Configuration config(write("[ S ]\nA=1\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config(" S ", "A"), "1");
  EXPECT_EQ(config.get_config("S", "A"), "");
}

TEST_F(ConfigurationFile, LaterDuplicateKeyWins) {
  Configuration config(write("[S]\nA=first\nA=second\n"), 1);
  EXPECT_EQ(config.get_config("S", "A"), "second");
}

TEST_F(ConfigurationFile, RepeatedSectionAddsToTheFirst) {
  Configuration config(write("[S]\nA=1\n[T]\nB=2\n[S]\nC=3\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config("S", "A"), "1");
  EXPECT_EQ(config.get_config("S", "C"), "3");
  EXPECT_EQ(config.get_config("T", "B"), "2");
}

// ACE's heap matches value names without regard to letter case, while
// section names must match exactly.
TEST_F(ConfigurationFile, KeyIsFoundInOtherLetterCase) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\nmin_observations_for_training=50\n"), 1);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "50");
}

TEST_F(ConfigurationFile, DynamicEntriesDifferingInCaseMergeIntoLastValue) {
  Configuration config(write("[DISABLE_FEATURE_PER_POLICY_TYPE]\nStandard=num_files\nSTANDARD=dedup_rate\n"), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(dynamic(config, "DISABLE_FEATURE_PER_POLICY_TYPE"), (Entries{{"standard", {"dedup_rate"}}}));
}

// A failed import other than -1 keeps what was read before the bad line.
TEST_F(ConfigurationFile, SecondSectionDifferingOnlyInCaseStopsImport) {
  Configuration config(write("[S]\nA=1\n[s]\nB=2\n"), 1);
  EXPECT_EQ(config.get_import_status(), -3);
  EXPECT_EQ(config.get_config("S", "A"), "1");
  EXPECT_EQ(config.get_config("s", "B"), "");
}

TEST_F(ConfigurationFile, LineWithoutEqualsStopsImportKeepingEarlierValues) {
  Configuration config(write("[ANOMALY_MODEL_SETTINGS]\n"
                             "MIN_OBSERVATIONS_FOR_TRAINING=50\n"
                             "just some words\n"
                             "MAX_OBSERVATIONS_FOR_TRAINING=10\n"
                             "[EXCLUDE_CLIENTS]\nCLIENT_NAME=a\n"),
                       1);
  EXPECT_EQ(config.get_import_status(), -3);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "50");
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
}

TEST_F(ConfigurationFile, SectionWithoutClosingBracketStopsImport) {
  Configuration config(write("[S]\nA=1\n[T\nB=2\n"), 1);
  EXPECT_EQ(config.get_import_status(), -3);
  EXPECT_EQ(config.get_config("S", "A"), "1");
  EXPECT_EQ(config.get_config("T", "B"), "");
}

TEST_F(ConfigurationFile, ValueBeforeAnySectionStopsImport) {
  Configuration config(write("A=1\n[ANOMALY_MODEL_SETTINGS]\nMIN_OBSERVATIONS_FOR_TRAINING=50\n"), 1);
  EXPECT_EQ(config.get_import_status(), -4);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "30");
}

TEST_F(ConfigurationFile, EmptyFileImportsCleanlyAndAnswersDefaults) {
  Configuration config(write(""), 1);
  EXPECT_EQ(config.get_import_status(), 0);
  EXPECT_EQ(config.get_config(kModel, "MAX_OBSERVATIONS_FOR_TRAINING"), "3000");
  EXPECT_EQ(config.get_config("META_DATA", "LOG_MODEL_DATA"), "");
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
  EXPECT_TRUE(dynamic(config, "EXCLUDE_CLIENT_POLICY").empty());
}

TEST_F(ConfigurationFile, BinaryFileStopsImportAndAnswersDefaults) {
  std::string bytes("\x7f" "ELF\x02\x01\x01", 7);
  bytes.append(9, '\0');
  for (int i = 0; i < 4096; ++i) {
    bytes.push_back(static_cast<char>((i * 37 + 11) % 256));
  }
  Configuration config(write(bytes), 1);
  EXPECT_EQ(config.get_import_status(), -3);
  EXPECT_EQ(config.get_config(kModel, "MIN_OBSERVATIONS_FOR_TRAINING"), "30");
  EXPECT_EQ(config.get_config("META_DATA", "LOG_MODEL_DATA"), "");
  EXPECT_TRUE(list(config, "EXCLUDE_CLIENTS", "CLIENT_NAME").empty());
  EXPECT_TRUE(dynamic(config, "EXCLUDE_CLIENT_POLICY").empty());
}

// ACE reads a line into a 4096-byte buffer; the rest of a longer line comes
// back as a line of its own without '=', which ends the import.
TEST_F(ConfigurationFile, VeryLongValueIsCutAtImporterLineBuffer) {
  const std::string megabyte(1 << 20, 'x');
  Configuration config(write("[S]\nK=" + megabyte + "\nAFTER=1\n"), 1);
  EXPECT_EQ(config.get_import_status(), -3);
  EXPECT_EQ(config.get_config("S", "K"), std::string(4093, 'x'));
  EXPECT_EQ(config.get_config("S", "AFTER"), "");
  EXPECT_EQ(list(config, "S", "K"), (Items{std::string(4093, 'x')}));
}
