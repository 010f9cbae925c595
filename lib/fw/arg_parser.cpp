#include "fw/arg_parser.hpp"

#include "cstdmf/debug.hpp"
#include "fw/string_utils.hpp"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <memory>

namespace FW
{
namespace
{
constexpr int kNotFound = -1;

// Event targets besides an option index.
constexpr int kUnassignedPositional = -1;
constexpr int kExtraPositional = -2;
constexpr int kIgnored = -3;

// Command lines up to this many bytes of UTF-8 are converted without touching the heap.
constexpr size_t kStackArgumentBytes = 32768;

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

bool ArgParser::parse(int argc, const wchar_t* const* argv)
{
  if (argc <= 0)
    return true;
  ZR_ASSERT(argv != nullptr);

  // All arguments go into one area with room for the worst case of every one of them.
  std::vector<size_t> lengths(static_cast<size_t>(argc));
  size_t total = 0;
  for (int i = 0; i < argc; ++i)
  {
    const size_t length = argv[i] ? std::wcslen(argv[i]) : 0;
    lengths[static_cast<size_t>(i)] = length;
    total += length * StringUtils::kMaxUtf8BytesPerWideChar + 1;
  }
  char stackArea[kStackArgumentBytes];
  std::unique_ptr<char[]> heapArea;
  char* area = stackArea;
  if (total > kStackArgumentBytes)
  {
    heapArea = std::make_unique<char[]>(total);
    area = heapArea.get();
  }

  std::vector<std::string_view> tokens;
  tokens.reserve(static_cast<size_t>(argc));
  size_t offset = 0;
  for (int i = 0; i < argc; ++i)
  {
    const size_t length = lengths[static_cast<size_t>(i)];
    const size_t capacity = length * StringUtils::kMaxUtf8BytesPerWideChar + 1;
    const size_t written = StringUtils::wtoutf8(argv[i] ? argv[i] : L"", length, area + offset, capacity);
    tokens.emplace_back(area + offset, written);
    offset += capacity;
  }
  return parseTokens(tokens);
}

bool ArgParser::parseTokens(const std::vector<std::string_view>& tokens)
{
  m_helpShown = false;
  m_programName = tokens.empty() ? std::string() : std::string(fileNameOf(tokens[0]));

  struct Event
  {
    int target;
    std::string_view value;
  };
  std::vector<Event> events;
  std::vector<bool> givenAsSwitch(m_entries.size(), false);

  // Match every switch and take the values of value options.
  for (size_t i = 1; i < tokens.size(); ++i)
  {
    const std::string_view token = tokens[i];
    if (!isSwitch(token))
    {
      events.push_back({kUnassignedPositional, token});
      continue;
    }

    int index = kNotFound;
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
      index = findLong(name);
    }
    else
    {
      index = findShort(token[1]);
      // "-j4": an alias glued to its value; a flag alias must stand alone.
      if (index != kNotFound && token.size() > 2)
      {
        if (m_entries[static_cast<size_t>(index)].option.kind == Kind::Value)
        {
          hasInlineValue = true;
          inlineValue = token.substr(2);
        }
        else
        {
          index = kNotFound;
        }
      }
    }

    if (index == kNotFound)
    {
      if ((m_flags & kIgnoreUnknownSwitches) != 0)
        continue;
      fail("ERROR: unexpected argument " + std::string(token) + ".\n");
      return false;
    }

    const Entry& entry = m_entries[static_cast<size_t>(index)];
    if (entry.option.kind == Kind::Flag)
    {
      if (hasInlineValue)
      {
        fail("ERROR: unexpected value after argument " + std::string(token) + ".\n");
        return false;
      }
      if (entry.builtinHelp && (m_flags & kStopAfterHelp) != 0)
      {
        showHelp();
        return true;
      }
      events.push_back({index, {}});
    }
    else if (hasInlineValue)
    {
      events.push_back({index, inlineValue});
    }
    else if (i + 1 < tokens.size())
    {
      events.push_back({index, tokens[++i]});
    }
    else
    {
      fail("ERROR: missing value after argument " + std::string(token) + ".\n");
      return false;
    }
    givenAsSwitch[static_cast<size_t>(index)] = true;
  }

  // Positional tokens fill the positional names that were not given as switches.
  std::vector<int> slots;
  for (size_t i = 0; i < m_entries.size(); ++i)
  {
    if (!m_entries[i].option.positionalName.empty() && !givenAsSwitch[i])
      slots.push_back(static_cast<int>(i));
  }
  size_t filled = 0;
  for (Event& event : events)
  {
    if (event.target != kUnassignedPositional)
      continue;
    if (filled < slots.size())
    {
      event.target = slots[filled++];
    }
    else if (m_extraPositionals)
    {
      event.target = kExtraPositional;
    }
    else if ((m_flags & kIgnoreExtraPositionals) != 0)
    {
      event.target = kIgnored;
    }
    else
    {
      fail("ERROR: unexpected argument " + std::string(event.value) + "\n");
      return false;
    }
  }

  std::vector<bool> given = givenAsSwitch;
  for (const Event& event : events)
  {
    if (event.target == kIgnored)
      continue;
    const Callback* callback = &m_extraPositionals;
    if (event.target >= 0)
    {
      const Entry& entry = m_entries[static_cast<size_t>(event.target)];
      given[static_cast<size_t>(event.target)] = true;
      if (entry.builtinHelp)
      {
        showHelp();
        continue;
      }
      callback = &entry.option.callback;
    }
    if (*callback && !(*callback)(event.value))
    {
      const Option* option = event.target >= 0 ? &m_entries[static_cast<size_t>(event.target)].option : nullptr;
      if (option && !option->expected.empty())
        fail("ERROR: invalid value '" + std::string(event.value) + "' for --" + option->longName + ": expected " +
             option->expected + "\n");
      else
        fail("ERROR: invalid value " + std::string(event.value));
      return false;
    }
  }

  for (size_t i = filled; i < slots.size(); ++i)
  {
    if ((m_entries[static_cast<size_t>(slots[i])].option.flags & kOptionalPositional) == 0)
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
