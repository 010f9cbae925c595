#include "fw/arg_parser.hpp"

#include "cstdmf/debug.hpp"

#include <algorithm>
#include <cstdio>

namespace FW
{
namespace
{
constexpr int kNotFound = -1;

// Target of a positional token that goes to the handler for further positionals.
constexpr int kExtraPositional = -2;

bool isAsciiLetter(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isValidLongName(std::string_view name)
{
  if (name.empty() || !isAsciiLetter(name[0]))
    return false;
  for (char c : name)
  {
    if (c == '=' || c == ' ' || c == '\t')
      return false;
  }
  return true;
}

void writeTo(std::FILE* stream, std::string_view text)
{
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

// The program's name as users type it: the last path component, on Windows without ".exe".
std::string_view fileNameOf(std::string_view path)
{
  const size_t separator = path.find_last_of("/\\");
  std::string_view name = separator == std::string_view::npos ? path : path.substr(separator + 1);
#ifdef _WIN32
  constexpr std::string_view kExecutable = ".exe";
  if (name.size() > kExecutable.size())
  {
    const std::string_view extension = name.substr(name.size() - kExecutable.size());
    bool same = true;
    for (size_t i = 0; i < extension.size(); ++i)
      same = same && (extension[i] | 0x20) == kExecutable[i];
    if (same)
      name.remove_suffix(kExecutable.size());
  }
#endif
  return name;
}
} // namespace

ArgParser::Builder& ArgParser::Builder::add(Option option)
{
  m_parser.addOption(std::move(option), false);
  return *this;
}

ArgParser::Builder& ArgParser::Builder::extraPositionals(std::string name, Callback callback)
{
  ZR_ASSERT(!m_parser.m_extraPositionals);
  ZR_ASSERT(callback);
  m_parser.m_extraPositionalName = std::move(name);
  m_parser.m_extraPositionals = std::move(callback);
  return *this;
}

ArgParser::ArgParser(std::string description, const Registration& registration, uint32_t flags)
  : m_description(std::move(description)), m_flags(flags),
    m_output([](std::string_view text) { writeTo(stdout, text); }),
    m_error([](std::string_view text) { writeTo(stderr, text); })
{
  Builder builder(*this);
  if (registration)
    registration(builder);
  // Registered last so that it closes the option table; a tool's own "help" or "h" wins.
  if ((m_flags & kBuiltinHelp) != 0 && findLong("help") == kNotFound)
  {
    Option help;
    help.kind = Kind::Flag;
    help.longName = "help";
    help.shortName = findShort('h') == kNotFound ? 'h' : 0;
    help.description = "Display this message.";
    addOption(std::move(help), true);
  }
}

void ArgParser::setWriters(Writer output, Writer error)
{
  ZR_ASSERT(output && error);
  m_output = std::move(output);
  m_error = std::move(error);
}

void ArgParser::addOption(Option option, bool builtinHelp)
{
  ZR_ASSERT(isValidLongName(option.longName));
  ZR_ASSERT(option.shortName == 0 || isAsciiLetter(option.shortName));
  ZR_ASSERT(findLong(option.longName) == kNotFound);
  ZR_ASSERT(option.shortName == 0 || findShort(option.shortName) == kNotFound);
  ZR_ASSERT(option.positionalName.empty() || option.kind == Kind::Value);
  m_entries.push_back(Entry{std::move(option), builtinHelp});
}

int ArgParser::findLong(std::string_view name) const
{
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    if (m_entries[i].option.longName == name)
      return static_cast<int>(i);
  }
  return kNotFound;
}

int ArgParser::findShort(char name) const
{
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    if (m_entries[i].option.shortName == name)
      return static_cast<int>(i);
  }
  return kNotFound;
}

bool ArgParser::isSwitch(std::string_view token)
{
  if (token.size() >= 2 && token[0] == '-' && isAsciiLetter(token[1]))
    return true;
  return token.size() >= 3 && token[0] == '-' && token[1] == '-' && isAsciiLetter(token[2]);
}

void ArgParser::fail(std::string_view text) const
{
  m_error(text);
}

bool ArgParser::parse(int argc, const char* const* argv)
{
  if (argc <= 0)
    return true;
  ZR_ASSERT(argv != nullptr);
  std::vector<std::string_view> tokens;
  tokens.reserve(static_cast<size_t>(argc));
  for (int i = 0; i < argc; ++i)
    tokens.emplace_back(argv[i] ? argv[i] : "");
  return parseTokens(tokens);
}

ArgParser::Match ArgParser::matchSwitch(const std::vector<std::string_view>& tokens, size_t at) const
{
  const std::string_view token = tokens[at];
  Match match;
  bool hasInlineValue = false;
  std::string_view inlineValue;
  if (token[1] == '-')
  {
    std::string_view name = token.substr(2);
    const size_t equals = name.find('=');
    if (equals != std::string_view::npos)
    {
      hasInlineValue = true;
      inlineValue = name.substr(equals + 1);
      name = name.substr(0, equals);
    }
    match.index = findLong(name);
  }
  else
  {
    match.index = findShort(token[1]);
    // "-j4": an alias glued to its value; a flag alias must stand alone.
    if (match.index != kNotFound && token.size() > 2)
    {
      if (m_entries[static_cast<size_t>(match.index)].option.kind == Kind::Value)
      {
        hasInlineValue = true;
        inlineValue = token.substr(2);
      }
      else
      {
        match.index = kNotFound;
      }
    }
  }

  if (match.index == kNotFound)
  {
    match.result = (m_flags & kIgnoreUnknownSwitches) != 0 ? MatchResult::Ignored : MatchResult::Unknown;
    return match;
  }
  const Entry& entry = m_entries[static_cast<size_t>(match.index)];
  if (entry.option.kind == Kind::Flag)
  {
    match.result = hasInlineValue ? MatchResult::UnexpectedValue : MatchResult::Matched;
  }
  else if (hasInlineValue)
  {
    match.value = inlineValue;
  }
  else if (at + 1 < tokens.size())
  {
    match.value = tokens[at + 1];
    match.tokensUsed = 2;
  }
  else
  {
    match.result = MatchResult::MissingValue;
  }
  return match;
}

std::vector<bool> ArgParser::optionsGivenAsSwitches(const std::vector<std::string_view>& tokens) const
{
  // Looks ahead as far as the parse itself would get: to the end, to the first switch it would
  // refuse, or to a help switch that ends it.
  std::vector<bool> given(m_entries.size(), false);
  for (size_t i = 1; i < tokens.size(); ++i)
  {
    if (!isSwitch(tokens[i]))
      continue;
    const Match match = matchSwitch(tokens, i);
    if (match.result == MatchResult::Ignored)
      continue;
    if (match.result != MatchResult::Matched)
      break;
    const Entry& entry = m_entries[static_cast<size_t>(match.index)];
    if (entry.builtinHelp && (m_flags & kStopAfterHelp) != 0)
      break;
    given[static_cast<size_t>(match.index)] = true;
    i += match.tokensUsed - 1;
  }
  return given;
}

bool ArgParser::parseTokens(const std::vector<std::string_view>& tokens)
{
  m_helpShown = false;
  m_programName = tokens.empty() ? std::string() : std::string(fileNameOf(tokens[0]));

  // Positional tokens go first to the positional names whose options are not given as switches
  // anywhere on the command line, in registration order; once those are used up, the n-th
  // positional token is the value of the n-th positional name, like a repeated switch.
  const std::vector<bool> givenAsSwitch = optionsGivenAsSwitches(tokens);
  std::vector<int> declared;
  std::vector<int> freeNames;
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    if (m_entries[i].option.positionalName.empty())
      continue;
    declared.push_back(static_cast<int>(i));
    if (!givenAsSwitch[i])
      freeNames.push_back(static_cast<int>(i));
  }

  std::vector<bool> given(m_entries.size(), false);
  const auto deliver = [&](int target, std::string_view value) {
    const Callback* callback = &m_extraPositionals;
    if (target >= 0)
    {
      given[static_cast<size_t>(target)] = true;
      callback = &m_entries[static_cast<size_t>(target)].option.callback;
    }
    if (*callback && !(*callback)(value))
    {
      // The project's own options say what they expect; the described ones keep their short text.
      const Option* option = target >= 0 ? &m_entries[static_cast<size_t>(target)].option : nullptr;
      if (option && !option->expected.empty())
        fail("ERROR: invalid value '" + std::string(value) + "' for --" + option->longName + ": expected " +
             option->expected + "\n");
      else
        fail("ERROR: invalid value " + std::string(value));
      return false;
    }
    return true;
  };

  // Every token is dealt with completely, callback included, before the next is looked at, so
  // the first fault on the command line is the one reported.
  size_t positionalCount = 0;
  for (size_t i = 1; i < tokens.size(); ++i)
  {
    const std::string_view token = tokens[i];
    if (!isSwitch(token))
    {
      ++positionalCount;
      int target = kNotFound;
      if (positionalCount <= freeNames.size())
        target = freeNames[positionalCount - 1];
      else if (positionalCount <= declared.size())
        target = declared[positionalCount - 1];
      else if (m_extraPositionals)
        target = kExtraPositional;
      else if ((m_flags & kIgnoreExtraPositionals) != 0)
        continue;
      else
      {
        fail("ERROR: unexpected argument " + std::string(token) + "\n");
        return false;
      }
      if (!deliver(target, token))
        return false;
      continue;
    }

    const Match match = matchSwitch(tokens, i);
    switch (match.result)
    {
    case MatchResult::Ignored:
      continue;
    case MatchResult::Unknown:
      fail("ERROR: unexpected argument " + std::string(token) + ".\n");
      return false;
    case MatchResult::UnexpectedValue:
      fail("ERROR: unexpected value after argument " + std::string(token) + ".\n");
      return false;
    case MatchResult::MissingValue:
      fail("ERROR: missing value after argument " + std::string(token) + ".\n");
      return false;
    case MatchResult::Matched:
      break;
    }
    i += match.tokensUsed - 1;
    const Entry& entry = m_entries[static_cast<size_t>(match.index)];
    if (entry.builtinHelp)
    {
      given[static_cast<size_t>(match.index)] = true;
      showHelp();
      if ((m_flags & kStopAfterHelp) != 0)
        return true;
      continue;
    }
    if (!deliver(match.index, match.value))
      return false;
  }

  for (size_t i = positionalCount; i < freeNames.size(); ++i)
  {
    if ((m_entries[static_cast<size_t>(freeNames[i])].option.flags & kOptionalPositional) == 0)
    {
      fail("ERROR: missing required positional arguments.\n");
      return false;
    }
  }
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    if ((m_entries[i].option.flags & kRequired) != 0 && !given[i])
    {
      fail("ERROR: missing required argument --" + m_entries[i].option.longName + ".\n");
      return false;
    }
  }
  return true;
}

void ArgParser::showHelp()
{
  m_helpShown = true;
  m_output(helpText(m_programName));
}

std::string ArgParser::helpText(std::string_view programName) const
{
  std::string text = "Usage: ";
  text += programName;
  text += " [options]";
  for (const Entry& entry : m_entries)
  {
    const Option& option = entry.option;
    if (option.positionalName.empty())
      continue;
    const bool optional = (option.flags & kOptionalPositional) != 0;
    text += optional ? " [" : " <";
    text += option.positionalName;
    text += optional ? "]" : ">";
  }
  if (m_extraPositionals)
    text += " [" + m_extraPositionalName + "...]";
  text += "\n";
  if (!m_description.empty())
  {
    text += "\n";
    text += m_description;
    if (m_description.back() != '\n')
      text += "\n";
  }
  text += "\nOptions:\n";

  std::vector<std::string> left;
  size_t width = 0;
  for (const Entry& entry : m_entries)
  {
    const Option& option = entry.option;
    std::string column = option.shortName != 0 ? std::string("  -") + option.shortName + ", " : std::string(6, ' ');
    column += "--" + option.longName;
    if (option.kind == Kind::Value)
      column += " <" + option.valueName + ">";
    width = std::max(width, column.size());
    left.push_back(std::move(column));
  }
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    text += left[i];
    text.append(width - left[i].size() + 2, ' ');
    text += m_entries[i].option.description;
    text += "\n";
  }
  return text;
}

} // namespace FW
