// IniFile is held to ACE's own heap and INI importer, which the detector
// used before: for generated files full of the cases that differ between
// INI readers, both must end with the same status and answer every lookup
// and every section's entries the same.
#include "config/IniFile.h"

#include <ace/Configuration.h>
#include <ace/Configuration_Import_Export.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

namespace {

const std::vector<std::string> kSections = {
    "S", "s", "T", "A", "a", "A/B", "A\\B", "a\\b", "A\\b", "A//B", "/A", "B\\", "", " ", " S ", "X]Y", "Y[",
    "ANOMALY_MODEL_SETTINGS", "anomaly_model_settings", std::string(255, 'n'), std::string(256, 'n'), "Kundé"};
const std::vector<std::string> kKeys = {"K",  "k",     "",          "K\\1", "a[b", "b]",     "Key With Space",
                                        "KÉ", "ké",    "Standard", "STANDARD", std::string(255, 'k'),
                                        std::string(256, 'k')};
const std::vector<std::string> kValues = {"1",  "\"quoted\"", "\"", "  spaced  ", "a,b, c", "", "x=y", "\"\"",
                                          "; not a comment", "\xff\xfe"};
const std::vector<std::string> kOtherLines = {"; comment", "# comment", "", "   ", "\t", "[]", "[ /]", "[S",
                                              "just words", "=value", "  K = v  ", "K=v\r", "[S]]", "[A]x]"};

std::string random_line(std::mt19937& random) {
  const auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
  switch (random() % 6) {
    case 0:
    case 1: return "[" + pick(kSections) + "]";
    case 2: return pick(kOtherLines);
    case 3: return pick(kKeys) + std::string(random() % 3, ' ') + "=" + std::string(random() % 2, ' ') +
                   (random() % 40 == 0 ? std::string(5000, 'v') : pick(kValues));
    default: return pick(kKeys) + "=" + pick(kValues);
  }
}

std::string random_file(std::mt19937& random) {
  std::string text = random() % 4 == 0 ? "" : "[" + kSections[random() % kSections.size()] + "]\n";
  const int lines = static_cast<int>(random() % 25);
  for (int i = 0; i < lines; ++i) text += random_line(random) + (random() % 30 == 0 ? "" : "\n");
  return text;
}

// Every spelling a caller could look up: the pools and their case variants.
std::vector<std::string> spellings(const std::vector<std::string>& names) {
  std::vector<std::string> all = names;
  for (const std::string& name : names) {
    std::string upper = name, lower = name;
    std::transform(name.begin(), name.end(), upper.begin(), [](char c) { return c >= 'a' && c <= 'z' ? c - 32 : c; });
    std::transform(name.begin(), name.end(), lower.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    all.push_back(upper);
    all.push_back(lower);
  }
  return all;
}

// ACE's heap, read and asked as the detector asked it before IniFile.
class AceReading {
 public:
  explicit AceReading(const std::string& path) {
    heap_.open(16);
    ACE_Ini_ImpExp importer(heap_);
    status_ = importer.import_config(path.c_str());
  }
  int status() const { return status_; }
  std::optional<std::string> value(const std::string& section, const std::string& key) {
    ACE_Configuration_Section_Key at;
    ACE_TString stored;
    if (heap_.open_section(heap_.root_section(), section.c_str(), false, at) != 0 ||
        heap_.get_string_value(at, key.c_str(), stored) != 0) {
      return std::nullopt;
    }
    return std::string(stored.c_str(), stored.length());
  }
  std::optional<std::vector<std::pair<std::string, std::string>>> entries(const std::string& section) {
    ACE_Configuration_Section_Key at;
    if (heap_.open_section(heap_.root_section(), section.c_str(), false, at) != 0) return std::nullopt;
    std::vector<std::pair<std::string, std::string>> all;
    ACE_TString name;
    ACE_Configuration::VALUETYPE type;
    for (int i = 0; heap_.enumerate_values(at, i, name, type) == 0; ++i) {
      all.emplace_back(name.c_str(), *value(section, name.c_str()));
    }
    std::sort(all.begin(), all.end());
    return all;
  }

 private:
  ACE_Configuration_Heap heap_;
  int status_ = 0;
};

std::optional<std::vector<std::pair<std::string, std::string>>> entries_of(const IniFile& file,
                                                                           const std::string& section) {
  std::vector<std::pair<std::string, std::string>> all;
  if (!file.visit_section(section, [&](const std::string& n, const std::string& v) { all.emplace_back(n, v); })) {
    return std::nullopt;
  }
  std::sort(all.begin(), all.end());
  return all;
}

}  // namespace

TEST(IniFile, ReadsEveryGeneratedFileAsAcesHeapAndImporterDid) {
  TempDir dir;
  const std::string path = dir.file("generated.ini");
  const std::vector<std::string> sections = spellings(kSections);
  const std::vector<std::string> keys = spellings(kKeys);
  std::mt19937 random(20261125);
  for (int round = 0; round < 400; ++round) {
    const std::string text = random_file(random);
    TempDir::write(path, text);
    AceReading ace(path);
    const IniFile file(path);
    ASSERT_EQ(file.import_status(), ace.status()) << text;
    if (ace.status() == -1) continue;
    for (const std::string& section : sections) {
      ASSERT_EQ(entries_of(file, section), ace.entries(section)) << "[" << section << "] of\n" << text;
      for (const std::string& key : keys) {
        ASSERT_EQ(file.value(section, key), ace.value(section, key)) << section << " " << key << " of\n" << text;
      }
    }
  }
}

TEST(IniFile, AFileThatCannotBeOpenedIsUnreadable) {
  EXPECT_EQ(IniFile("/nonexistent/tsanomaly.ini").import_status(), IniFile::kUnreadable);
  EXPECT_EQ(IniFile("").import_status(), IniFile::kUnreadable);
}
