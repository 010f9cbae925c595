#include "fw/arg_parser.hpp"

#include <gtest/gtest.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

using FW::ArgParser;

namespace
{
constexpr uint32_t kToolFlags = ArgParser::kBuiltinHelp | ArgParser::kStopAfterHelp;

// A parser shaped like the tool's: flags "quiet" (-q) and "tree", optional positional value
// options "src-path" and "dst-path", and a value option "level" (-l). Every callback records the
// option and its value; the value "bad" is refused.
struct Harness
{
  std::map<std::string, std::string> values;
  std::vector<std::string> order;
  std::string out;
  std::string err;
  std::unique_ptr<ArgParser> parser;

  explicit Harness(uint32_t flags = kToolFlags, uint32_t levelFlags = 0,
                   uint32_t positionalFlags = ArgParser::kOptionalPositional)
  {
    const auto option = [this](ArgParser::Kind kind, const char* name, char alias, uint32_t optionFlags,
                               const char* positional) {
      return ArgParser::Option{.kind = kind,
                               .longName = name,
                               .shortName = alias,
                               .description = std::string("the ") + name,
                               .flags = optionFlags,
                               .positionalName = positional,
                               .callback = [this, name](std::string_view value) {
                                 order.emplace_back(name);
                                 values[name] = value;
                                 return value != "bad";
                               }};
    };
    parser = std::make_unique<ArgParser>(
      "Does things.",
      [&](ArgParser::Builder& builder) {
        builder.add(option(ArgParser::Kind::Flag, "quiet", 'q', 0, ""))
          .add(option(ArgParser::Kind::Flag, "tree", 0, 0, ""))
          .add(option(ArgParser::Kind::Value, "src-path", 0, positionalFlags, "src-path"))
          .add(option(ArgParser::Kind::Value, "dst-path", 0, positionalFlags, "dst-path"))
          .add(option(ArgParser::Kind::Value, "level", 'l', levelFlags, ""));
      },
      flags);
    parser->setWriters([this](std::string_view text) { out += text; }, [this](std::string_view text) { err += text; });
  }

  bool parse(std::initializer_list<const char*> args)
  {
    std::vector<const char*> argv{"tools/prog"};
    argv.insert(argv.end(), args.begin(), args.end());
    return parser->parse(static_cast<int>(argv.size()), argv.data());
  }

  using Values = std::map<std::string, std::string>;
  using Order = std::vector<std::string>;
};
} // namespace

TEST(ArgParser, SwitchOrPositional)
{
  for (const char* token : {"-q", "-qx", "--tree", "--t"})
    EXPECT_TRUE(ArgParser::isSwitch(token)) << token;
  for (const char* token : {"-", "--", "-1", "--1", "---tree", "-\xC3\xA9", ".", "model-q"})
    EXPECT_FALSE(ArgParser::isSwitch(token)) << token;

  // So these are positional values, not unknown switches.
  Harness h;
  EXPECT_TRUE(h.parse({"-1", "--"}));
  EXPECT_EQ(h.values, (Harness::Values{{"src-path", "-1"}, {"dst-path", "--"}}));
  EXPECT_EQ(h.err, "");
}

TEST(ArgParser, FlagsValuesAndAliases)
{
  Harness h;
  // A value option takes the next argument whatever it looks like.
  ASSERT_TRUE(h.parse({"-q", "--tree", "--src-path", "a b", "--dst-path", "--quiet", "-l", "7"}));
  EXPECT_EQ(h.values, (Harness::Values{{"quiet", ""}, {"tree", ""}, {"src-path", "a b"}, {"dst-path", "--quiet"},
                                       {"level", "7"}}));
  EXPECT_EQ(h.order, (Harness::Order{"quiet", "tree", "src-path", "dst-path", "level"}));
  EXPECT_EQ(h.out + h.err, "");

  Harness inlineValues;
  ASSERT_TRUE(inlineValues.parse({"--src-path=x=y", "-l42", "--dst-path="}));
  EXPECT_EQ(inlineValues.values, (Harness::Values{{"src-path", "x=y"}, {"level", "42"}, {"dst-path", ""}}));
}

TEST(ArgParser, PositionalFallback)
{
  Harness both;
  ASSERT_TRUE(both.parse({"model.primitives", "out"}));
  EXPECT_EQ(both.values, (Harness::Values{{"src-path", "model.primitives"}, {"dst-path", "out"}}));

  // A positional fills the first name whose option was not given as a switch, wherever the switch
  // stands; callbacks still run in command-line order.
  Harness mixed;
  ASSERT_TRUE(mixed.parse({"out", "--src-path", "model.primitives"}));
  EXPECT_EQ(mixed.values, (Harness::Values{{"src-path", "model.primitives"}, {"dst-path", "out"}}));
  EXPECT_EQ(mixed.order, (Harness::Order{"dst-path", "src-path"}));

  Harness none;
  ASSERT_TRUE(none.parse({"--tree"}));
  EXPECT_EQ(none.values.count("src-path") + none.values.count("dst-path"), 0u);

  // With both names given as switches, positional tokens are the values of the positional names
  // by number, at their place on the command line: the later value wins.
  Harness repeated;
  ASSERT_TRUE(repeated.parse({"--src-path", "s", "--dst-path", "d", "p1", "p2"}));
  EXPECT_EQ(repeated.values, (Harness::Values{{"src-path", "p1"}, {"dst-path", "p2"}}));
  Harness earlier;
  ASSERT_TRUE(earlier.parse({"p1", "--src-path", "s", "--dst-path", "d"}));
  EXPECT_EQ(earlier.values, (Harness::Values{{"src-path", "s"}, {"dst-path", "d"}}));
  // One given by name: the first positional fills the other, the second is the second name's.
  Harness oneNamed;
  ASSERT_TRUE(oneNamed.parse({"p1", "--src-path", "s", "p2"}));
  EXPECT_EQ(oneNamed.values, (Harness::Values{{"src-path", "s"}, {"dst-path", "p2"}}));
  EXPECT_EQ(oneNamed.order, (Harness::Order{"dst-path", "src-path", "dst-path"}));

  Harness zero;
  EXPECT_TRUE(zero.parser->parse(0, static_cast<const char* const*>(nullptr)));
}

TEST(ArgParser, ErrorMessages)
{
  struct Case
  {
    std::initializer_list<const char*> args;
    const char* error;
  };
  const Case cases[] = {
    {{"--bogus"}, "ERROR: unexpected argument --bogus.\n"},
    {{"-x"}, "ERROR: unexpected argument -x.\n"},
    {{"-qv"}, "ERROR: unexpected argument -qv.\n"},
    {{"--Tree"}, "ERROR: unexpected argument --Tree.\n"},
    {{"a", "b", "c"}, "ERROR: unexpected argument c\n"},
    {{"--src-path", "a", "b", "c", "d"}, "ERROR: unexpected argument d\n"},
    {{"--dst-path"}, "ERROR: missing value after argument --dst-path.\n"},
    {{"a", "-l"}, "ERROR: missing value after argument -l.\n"},
    {{"--tree=yes"}, "ERROR: unexpected value after argument --tree=yes.\n"},
    {{"--level", "bad"}, "ERROR: invalid value bad"},
  };
  for (const Case& c : cases)
  {
    Harness h;
    EXPECT_FALSE(h.parse(c.args)) << c.error;
    EXPECT_EQ(h.err, c.error);
    EXPECT_EQ(h.out, "");
  }
}

TEST(ArgParser, RefusedValueSaysWhatWasExpected)
{
  std::string err;
  ArgParser parser(
    "Does things.",
    [](ArgParser::Builder& builder) {
      builder.add({.kind = ArgParser::Kind::Value,
                   .longName = "jobs",
                   .shortName = 'j',
                   .expected = "a whole number",
                   .callback = [](std::string_view value) { return value == "1"; }});
    },
    kToolFlags);
  parser.setWriters([](std::string_view) {}, [&err](std::string_view text) { err += text; });
  // Named after its long form, however it was given.
  for (const char* form : {"-jabc", "--jobs=abc"})
  {
    err.clear();
    const char* argv[] = {"prog", form};
    EXPECT_FALSE(parser.parse(2, argv)) << form;
    EXPECT_EQ(err, "ERROR: invalid value 'abc' for --jobs: expected a whole number\n") << form;
  }
}

TEST(ArgParser, RequiredOptionsAndPositionals)
{
  Harness level(kToolFlags, ArgParser::kRequired);
  EXPECT_FALSE(level.parse({"a", "b"}));
  EXPECT_EQ(level.err, "ERROR: missing required argument --level.\n");
  EXPECT_TRUE(Harness(kToolFlags, ArgParser::kRequired).parse({"-l", "3"}));

  // Without the optional bit, a positional name must be filled, by position or by switch.
  Harness positional(kToolFlags, 0, 0);
  EXPECT_FALSE(positional.parse({"a"}));
  EXPECT_EQ(positional.err, "ERROR: missing required positional arguments.\n");

  Harness bySwitch(kToolFlags, 0, 0);
  EXPECT_TRUE(bySwitch.parse({"--dst-path", "b", "a"}));
  EXPECT_EQ(bySwitch.values["src-path"], "a");
  EXPECT_EQ(bySwitch.err, "");
}

TEST(ArgParser, IgnoredAndExtraArguments)
{
  Harness h(ArgParser::kIgnoreExtraPositionals | ArgParser::kIgnoreUnknownSwitches);
  ASSERT_TRUE(h.parse({"a", "--bogus", "b", "c", "-z", "--tree"}));
  EXPECT_EQ(h.values, (Harness::Values{{"src-path", "a"}, {"dst-path", "b"}, {"tree", ""}}));
  EXPECT_EQ(h.err, "");

  std::vector<std::string> extra;
  ArgParser parser(
    "",
    [&](ArgParser::Builder& builder) {
      builder.extraPositionals("file", [&](std::string_view v) { return extra.emplace_back(v), v != "bad"; });
    },
    0);
  std::string err;
  parser.setWriters([](std::string_view) {}, [&](std::string_view text) { err += text; });
  const char* argv[] = {"prog", "x", "y", "bad"};
  EXPECT_FALSE(parser.parse(4, argv));
  EXPECT_EQ(extra, (std::vector<std::string>{"x", "y", "bad"}));
  EXPECT_EQ(err, "ERROR: invalid value bad");
  EXPECT_EQ(parser.helpText("prog").substr(0, 31), "Usage: prog [options] [file...]");
}

TEST(ArgParser, Help)
{
  Harness h;
  // The help switch stops the parse: nothing after it is looked at.
  ASSERT_TRUE(h.parse({"-q", "--help", "--bogus", "a", "b", "c"}));
  EXPECT_TRUE(h.parser->helpShown());
  EXPECT_EQ(h.order, Harness::Order{"quiet"});
  EXPECT_EQ(h.err, "");
  EXPECT_EQ(h.out, "Usage: prog [options] [src-path] [dst-path]\n"
                   "\n"
                   "Does things.\n"
                   "\n"
                   "Options:\n"
                   "  -q, --quiet             the quiet\n"
                   "      --tree              the tree\n"
                   "      --src-path <value>  the src-path\n"
                   "      --dst-path <value>  the dst-path\n"
                   "  -l, --level <value>     the level\n"
                   "  -h, --help              Display this message.\n");

  Harness early;
  EXPECT_FALSE(early.parse({"--bogus", "-h"}));
  EXPECT_EQ(early.out, "");

  // Without the stop bit, help prints and parsing goes on.
  Harness goesOn(ArgParser::kBuiltinHelp);
  ASSERT_TRUE(goesOn.parse({"-h", "-q"}));
  EXPECT_TRUE(goesOn.parser->helpShown());
  EXPECT_EQ(goesOn.order, Harness::Order{"quiet"});
  EXPECT_EQ(goesOn.out, h.out);

  Harness noHelp(0);
  EXPECT_FALSE(noHelp.parse({"--help"}));
  EXPECT_EQ(noHelp.err, "ERROR: unexpected argument --help.\n");
}

// Each token is dealt with before the next one is looked at, so whichever fault comes first on
// the command line is reported, whatever its kind; callbacks of earlier tokens have run.
TEST(ArgParser, FirstFaultOnTheCommandLineWins)
{
  struct Case
  {
    std::initializer_list<const char*> args;
    const char* error;
    size_t callbacks;
  };
  const Case cases[] = {
    // A third positional before an unknown switch, a missing value or a refused value.
    {{"a", "b", "c", "--bogus"}, "ERROR: unexpected argument c\n", 2},
    {{"a", "b", "c", "-l"}, "ERROR: unexpected argument c\n", 2},
    {{"a", "-q", "b", "c", "--level", "bad"}, "ERROR: unexpected argument c\n", 3},
    {{"a", "b", "c", "--tree=1"}, "ERROR: unexpected argument c\n", 2},
    // ... and each of those before a third positional.
    {{"--bogus", "a", "b", "c"}, "ERROR: unexpected argument --bogus.\n", 0},
    {{"a", "--tree=1", "b", "c"}, "ERROR: unexpected value after argument --tree=1.\n", 1},
    {{"a", "--level", "bad", "b", "c"}, "ERROR: invalid value bad", 2},
    {{"a", "b", "-x", "--level"}, "ERROR: unexpected argument -x.\n", 2},
    // A refused value before a later unknown switch, and the other way round.
    {{"-l", "bad", "--bogus"}, "ERROR: invalid value bad", 1},
    {{"-z", "-l", "bad"}, "ERROR: unexpected argument -z.\n", 0},
    // A positional refused by its callback before a later fault.
    {{"bad", "--bogus"}, "ERROR: invalid value bad", 1},
    // The value option at the very end comes last.
    {{"-q", "a", "b", "--level"}, "ERROR: missing value after argument --level.\n", 3},
  };
  for (const Case& c : cases)
  {
    Harness h;
    EXPECT_FALSE(h.parse(c.args)) << c.error;
    EXPECT_EQ(h.err, c.error);
    EXPECT_EQ(h.order.size(), c.callbacks) << c.error;
  }

  // The end-of-line checks come after every token: a token fault wins over a missing positional
  // or required option, and a missing positional over a missing required option.
  Harness tokenFirst(kToolFlags, ArgParser::kRequired, 0);
  EXPECT_FALSE(tokenFirst.parse({"--bogus"}));
  EXPECT_EQ(tokenFirst.err, "ERROR: unexpected argument --bogus.\n");
  Harness positionalFirst(kToolFlags, ArgParser::kRequired, 0);
  EXPECT_FALSE(positionalFirst.parse({"a"}));
  EXPECT_EQ(positionalFirst.err, "ERROR: missing required positional arguments.\n");
}
