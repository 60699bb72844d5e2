// The service's option scan, in process.
#include "service/ServiceOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

ServiceOptions parse(std::vector<std::string> args) {
  args.insert(args.begin(), "tsanomalydetect");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  return ServiceOptions::parse(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

TEST(ServiceOptions, DefaultsWhenNothingIsGiven) {
  const ServiceOptions o = parse({});
  EXPECT_EQ(o.database_location, "");
  EXPECT_EQ(o.database_file_name, "");
  EXPECT_EQ(o.eps, 0.0);
  EXPECT_EQ(o.min_samples, 3);
  EXPECT_EQ(o.log_path, "/usr/tsroot/tessaryn/logs");
  EXPECT_FALSE(o.has_config_file);
  EXPECT_EQ(o.config_file, "");
}

TEST(ServiceOptions, AllSixOptionsAreRead) {
  const ServiceOptions o = parse({"-database_location", "/d", "-database_file_name", "f.db", "-eps", "0.7",
                                  "-min_samples", "5", "-log_path", "/l", "-config_file", "/c.ini"});
  EXPECT_EQ(o.database_location, "/d");
  EXPECT_EQ(o.database_file_name, "f.db");
  EXPECT_EQ(o.eps, 0.7);
  EXPECT_EQ(o.min_samples, 5);
  EXPECT_EQ(o.log_path, "/l");
  EXPECT_TRUE(o.has_config_file);
  EXPECT_EQ(o.config_file, "/c.ini");
}

TEST(ServiceOptions, MinSamplesIsRaisedToThree) {
  EXPECT_EQ(parse({"-min_samples", "1"}).min_samples, 3);
  EXPECT_EQ(parse({"-min_samples", "2x"}).min_samples, 3);
  EXPECT_EQ(parse({"-min_samples", "7"}).min_samples, 7);
  EXPECT_EQ(parse({"-min_samples", "7.9"}).min_samples, 7);
}

TEST(ServiceOptions, NegativeNumberIsTakenForAnOption) {
  // "-0.5" starts with '-', so -eps has no value and swallows it.
  const ServiceOptions o = parse({"-eps", "-0.5", "-min_samples", "9"});
  EXPECT_EQ(o.eps, 0.0);
  EXPECT_EQ(o.min_samples, 9);
}

TEST(ServiceOptions, OptionWithoutValueSwallowsTheNextOption) {
  const ServiceOptions o = parse({"-config_file", "-eps", "0.4"});
  EXPECT_FALSE(o.has_config_file);
  EXPECT_EQ(o.eps, 0.0);
  EXPECT_EQ(o.options.count("-eps"), 1u);  // looked up, so present with an empty value
  EXPECT_EQ(o.options.at("-eps"), "");
}

TEST(ServiceOptions, FirstValueWinsAndUnknownOptionsAreKept) {
  const ServiceOptions o = parse({"-eps", "0.4", "-eps", "0.9", "-color", "blue"});
  EXPECT_EQ(o.eps, 0.4);
  EXPECT_EQ(o.options.at("-color"), "blue");
}

TEST(ServiceOptions, OptionNamesAreCaseSensitive) {
  const ServiceOptions o = parse({"-EPS", "0.4"});
  EXPECT_EQ(o.eps, 0.0);
}

TEST(ServiceOptions, LastOptionWithoutValueIsIgnored) {
  const ServiceOptions o = parse({"-eps", "0.3", "-log_path"});
  EXPECT_EQ(o.eps, 0.3);
  EXPECT_EQ(o.log_path, "/usr/tsroot/tessaryn/logs");
}
