#include "cli/CommandArgs.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

CommandArgs parse(std::vector<std::string> args, const CommandArgs::Grammar& grammar) {
  args.insert(args.begin(), "cmd");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  return CommandArgs(static_cast<int>(argv.size()), argv.data(), grammar);
}

const CommandArgs::Grammar kGrammar{{"--json", "--force"}, {"--limit", "--client", "-o"}, 1, 1};

}  // namespace

TEST(CommandArgs, SeparatesPositionalsFlagsAndValues) {
  auto args = parse({"db.sqlite", "--json", "--limit", "5", "--client=web01"}, kGrammar);
  ASSERT_TRUE(args.ok()) << args.error();
  EXPECT_EQ(args.positional(), (std::vector<std::string>{"db.sqlite"}));
  EXPECT_TRUE(args.flag("--json"));
  EXPECT_FALSE(args.flag("--force"));
  EXPECT_EQ(args.value("--client"), "web01");
  EXPECT_EQ(args.integer("--limit", 10, 1, 100), 5);
  EXPECT_EQ(args.value("-o"), std::nullopt);
}

TEST(CommandArgs, UnknownOptionIsAnError) {
  auto args = parse({"db", "--nope"}, kGrammar);
  EXPECT_FALSE(args.ok());
  EXPECT_EQ(args.error(), "unknown option --nope");
}

TEST(CommandArgs, ValuedOptionAtTheEndNeedsAValue) {
  auto args = parse({"db", "--limit"}, kGrammar);
  EXPECT_EQ(args.error(), "option --limit needs a value");
}

TEST(CommandArgs, MissingAndExtraPositionalsAreErrors) {
  EXPECT_EQ(parse({}, kGrammar).error(), "missing argument");
  EXPECT_EQ(parse({"a", "b"}, kGrammar).error(), "unexpected argument 'b'");
}

TEST(CommandArgs, HelpIsRecognisedAnywhere) {
  EXPECT_TRUE(parse({"db", "--help"}, kGrammar).help());
  EXPECT_TRUE(parse({"-h"}, kGrammar).help());
}

TEST(CommandArgs, MalformedOrOutOfRangeNumbersAreErrors) {
  auto args = parse({"db", "--limit", "12x"}, kGrammar);
  EXPECT_EQ(args.integer("--limit", 10, 1, 100), 10);
  EXPECT_EQ(args.error(), "--limit takes a whole number from 1 to 100, not '12x'");
  auto big = parse({"db", "--limit", "101"}, kGrammar);
  big.integer("--limit", 10, 1, 100);
  EXPECT_FALSE(big.ok());
  auto huge = parse({"db", "--limit", "99999999999999999999"}, kGrammar);
  huge.integer("--limit", 10, 1, 100);
  EXPECT_FALSE(huge.ok());
  auto real = parse({"db", "--limit", "2.5"}, kGrammar);
  EXPECT_EQ(real.number("--limit", 1.0, 0.0, 100.0), 2.5);
  EXPECT_TRUE(real.ok());
  auto nan = parse({"db", "--limit", "nan"}, kGrammar);
  nan.number("--limit", 1.0, 0.0, 100.0);
  EXPECT_FALSE(nan.ok());
}

TEST(CommandArgs, FlagGivenAValueIsAnError) {
  EXPECT_FALSE(parse({"db", "--json=yes"}, kGrammar).ok());
}

TEST(CommandArgs, SingleDashIsPositional) {
  auto args = parse({"-"}, kGrammar);
  EXPECT_TRUE(args.ok());
  EXPECT_EQ(args.positional(), (std::vector<std::string>{"-"}));
}

namespace {

const CommandArgs::Syntax kDeclared{
    {{.name = "--json", .help = "one object per line"},
     {.name = "-o", .value_name = "FILE", .help = "where to write\nthe page", .alias = "--output"},
     {.name = "--limit", .value_name = "N", .help = "at most N", .whole = WholeRange{1, 100}},
     {.name = "-eps", .value_name = "E", .help = "eps", .number = NumberRange{0.0, 2.0}}},
    0,
    1};

CommandArgs declared(std::vector<std::string> args) {
  args.insert(args.begin(), "cmd");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  return CommandArgs(static_cast<int>(argv.size()), argv.data(), kDeclared);
}

}  // namespace

TEST(CommandArgs, ReadingAnUndeclaredOptionThrows) {
  auto args = declared({"--limit", "5"});
  EXPECT_THROW(args.value("--limt"), std::logic_error);
  EXPECT_THROW(args.flag("--jsn"), std::logic_error);
  EXPECT_THROW(args.integer("--limt", 10), std::logic_error);
  EXPECT_THROW(args.number("-esp", 1.0), std::logic_error);
}

TEST(CommandArgs, ReadingAnOptionAsTheWrongKindThrows) {
  auto args = declared({"--json"});
  EXPECT_THROW(args.value("--json"), std::logic_error);
  EXPECT_THROW(args.flag("--limit"), std::logic_error);
  EXPECT_THROW(args.integer("-eps", 1), std::logic_error);
  EXPECT_THROW(args.number("--limit", 1.0), std::logic_error);
  EXPECT_THROW(args.integer("-o", 1), std::logic_error);
}

TEST(CommandArgs, DeclaredRangesBoundTheValues) {
  auto args = declared({"--limit", "101"});
  EXPECT_EQ(args.integer("--limit", 10), 10);
  EXPECT_EQ(args.error(), "--limit takes a whole number from 1 to 100, not '101'");
  auto eps = declared({"-eps", "1.5", "--limit", "7"});
  EXPECT_EQ(eps.number("-eps", 0.0), 1.5);
  EXPECT_EQ(eps.integer("--limit", 10), 7);
  EXPECT_TRUE(eps.ok()) << eps.error();
  auto far = declared({"-eps", "2.5"});
  far.number("-eps", 0.0);
  EXPECT_FALSE(far.ok());
}

TEST(CommandArgs, AnAliasReadsAsItsOption) {
  EXPECT_EQ(declared({"--output", "a.html"}).value("-o"), "a.html");
  EXPECT_EQ(declared({"--output=b.html"}).value("--output"), "b.html");
  EXPECT_EQ(declared({"-o", "first", "--output", "second"}).value("-o"), "first");
  EXPECT_EQ(declared({}).value("-o"), std::nullopt);
}

TEST(CommandArgs, OptionsHelpAlignsTheTextsAfterTheWidestName) {
  EXPECT_EQ(options_help(kDeclared.options),
            "  --json             one object per line\n"
            "  -o, --output FILE  where to write\n"
            "                     the page\n"
            "  --limit N          at most N\n"
            "  -eps E             eps\n");
}
