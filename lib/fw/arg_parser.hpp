#pragma once
// Command-line parsing for the tools.
//
// Options are registered through a builder, each with a callback that stores what it is given.
// A token is a switch when it is a '-' followed by a letter or "--" followed by a letter; every
// other token is positional. Long names follow "--" ("--dst-path"), one-letter aliases follow a
// single '-' ("-q"). A value option takes the next argument as its value, whatever it looks like;
// "--name=value" and, for a one-letter alias, "-nvalue" give the value in the same token.
//
// A value option with a positional name may instead be given by position. Positional tokens fill,
// in registration order, the positional names whose options are not given as switches anywhere on
// the command line; when those are used up, the n-th positional token is the value of the n-th
// positional name, exactly as if that option were given again at that place (the later value wins).
// Only a positional token beyond the number of positional names is refused.
//
// Tokens are handled one by one in command-line order, each completely (its callback included)
// before the next, so the first fault on the command line is the one reported: the message is one
// line beginning with "ERROR: " on the error writer, and parse() returns false. Missing required
// positionals and options are checked at the end.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace FW
{

class ArgParser
{
public:
  // Parser flags, the constructor's `flags` word.
  // Positional tokens beyond the declared positional names are ignored instead of refused.
  static constexpr uint32_t kIgnoreExtraPositionals = 1u << 0;
  // Registers "help" (alias "h", "Display this message."), which writes the usage text, the
  // description and the option table to the output writer.
  static constexpr uint32_t kBuiltinHelp = 1u << 1;
  // A help switch ends the parse at once with success: nothing after it is looked at (the
  // callbacks of the switches before it have run) and helpShown() is true.
  static constexpr uint32_t kStopAfterHelp = 1u << 2;
  // Switches that match no option are ignored instead of refused.
  static constexpr uint32_t kIgnoreUnknownSwitches = 1u << 3;

  // Option flags, Option::flags.
  // The option must be given, as a switch or by position.
  static constexpr uint32_t kRequired = 1u << 0;
  // The option's positional name may be left out. Without it a positional name whose option is
  // not given as a switch must be filled.
  static constexpr uint32_t kOptionalPositional = 1u << 1;

  enum class Kind
  {
    Flag,  // takes no value; the callback gets an empty value
    Value, // takes one value
  };

  // Gets the option's value. Returning false refuses the value: the parse fails with
  // "ERROR: invalid value <value>", or, when the option says what it expects,
  // "ERROR: invalid value '<value>' for --<name>: expected <expected>".
  using Callback = std::function<bool(std::string_view value)>;

  struct Option
  {
    Kind kind = Kind::Flag;
    std::string longName;           // without dashes; starts with a letter
    char shortName = 0;             // an ASCII letter, or 0 for no alias
    std::string description;        // one line in the option table
    uint32_t flags = 0;             // kRequired, kOptionalPositional
    std::string positionalName;     // value options only; empty when not positional
    std::string valueName = "value"; // shown in the option table as "--name <value>"
    std::string expected;           // what a valid value looks like, for the refusal message
    Callback callback;              // may be empty
  };

  // Handed to the registration callback. Registering an invalid or duplicate name, or a
  // positional name on a flag, is a programming error and asserts.
  class Builder
  {
  public:
    Builder& add(Option option);
    // Positional tokens beyond the number of positional names go to `callback` instead of being
    // refused; `name` is shown in the usage line.
    Builder& extraPositionals(std::string name, Callback callback);

  private:
    friend class ArgParser;
    explicit Builder(ArgParser& parser) : m_parser(parser) {}
    ArgParser& m_parser;
  };

  using Registration = std::function<void(Builder&)>;
  using Writer = std::function<void(std::string_view text)>;

  // `description` is printed by help below the usage line. `registration` is called once, here.
  ArgParser(std::string description, const Registration& registration, uint32_t flags);

  // Where help text and error lines go; standard output and standard error by default.
  void setWriters(Writer output, Writer error);

  // Parses argv[1..argc-1]; argv[0] names the program in the help text. With argc <= 0 nothing is
  // parsed and the result is true. Returns false after writing an "ERROR: " line when the command
  // line is refused or a callback refuses its value.
  [[nodiscard]] bool parse(int argc, const char* const* argv);

  // True when the last parse met a help switch.
  bool helpShown() const { return m_helpShown; }

  // The help text: usage line, description, option table.
  std::string helpText(std::string_view programName) const;

  // Whether the token is a switch (as opposed to a positional argument).
  static bool isSwitch(std::string_view token);

private:
  struct Entry
  {
    Option option;
    bool builtinHelp = false;
  };

  enum class MatchResult
  {
    Matched,
    Ignored,         // unknown, and unknown switches are ignored
    Unknown,         // matches no option
    UnexpectedValue, // a flag given a value
    MissingValue,    // a value option at the end of the command line
  };
  struct Match
  {
    MatchResult result = MatchResult::Matched;
    int index = -1;           // the option, when one matched
    std::string_view value;   // value options only
    size_t tokensUsed = 1;    // 2 when the value is the next token
  };

  // Matches the switch at tokens[at] and finds its value.
  Match matchSwitch(const std::vector<std::string_view>& tokens, size_t at) const;
  // Which options the command line gives as switches, as far as a parse would get.
  std::vector<bool> optionsGivenAsSwitches(const std::vector<std::string_view>& tokens) const;
  [[nodiscard]] bool parseTokens(const std::vector<std::string_view>& tokens);
  void addOption(Option option, bool builtinHelp);
  int findLong(std::string_view name) const;
  int findShort(char name) const;
  void showHelp();
  void fail(std::string_view text) const;

  std::string m_description;
  uint32_t m_flags;
  std::vector<Entry> m_entries;
  std::string m_extraPositionalName;
  Callback m_extraPositionals;
  Writer m_output;
  Writer m_error;
  std::string m_programName;
  bool m_helpShown = false;
};

} // namespace FW
