#include "vertexmill/model_cache.hpp"

#include "content_cache/file_io.hpp"
#include "content_cache/key_hash.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/version.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/levels_of_detail.hpp"
#include "vertexmill/report.hpp"
#include "vertexmill_build_id.hpp"

#include <meshoptimizer.h>

#include <algorithm>
#include <array>
#include <span>
#include <system_error>

namespace vertexmill
{
namespace fs = std::filesystem;
using content_cache::CacheEntry;
using content_cache::CachedMessage;
using content_cache::Digest;

namespace
{
// Bumped whenever what goes into a key changes.
// 2: BLAKE3 instead of SHA-256.
// 3: the figures kept with a result name each render set's bones and size.
constexpr std::string_view kKeyScheme = "vertexmill model cache key 3";

// Placeholder for the source path in kept messages; a literal marker byte is doubled.
constexpr char kMarker = '\x01';
constexpr char kSourceCode = 'S';

constexpr auto kWarning = DebugMessagePriority::Warning;

bool stampOf(const fs::path& path, InputStamp& stamp)
{
  std::error_code error;
  stamp.path = path;
  stamp.size = fs::file_size(path, error);
  if (error)
    return false;
  stamp.time = fs::last_write_time(path, error);
  return !error;
}

// The stamps as they are now; false when any file changed or cannot be examined.
bool unchanged(const std::vector<InputStamp>& stamps)
{
  for (const InputStamp& before : stamps)
  {
    InputStamp now;
    if (!stampOf(before.path, now) || !(now == before))
      return false;
  }
  return true;
}
} // namespace

ToolIdentity ToolIdentity::current()
{
  // The build id is a hash of the converting code's sources made when the tool was built; the
  // library that optimises and encodes is linked from the system, so its version counts too.
  return ToolIdentity{std::string(cstdmf::toolsVersion()),
                      std::string(VERTEXMILL_BUILD_ID) + " meshoptimizer " + std::to_string(MESHOPTIMIZER_VERSION)};
}

std::optional<Digest> modelKey(const GeometryCompiler::Request& request, const CompileOptions& options,
                               const ToolIdentity& identity, std::vector<InputStamp>* stamps)
{
  content_cache::KeyHash hash;
  hash.updateField(kKeyScheme);
  hash.updateField(identity.version);
  hash.updateField(identity.buildId);
  hash.updateField(options.keyText());

  const std::array<std::pair<std::string_view, const std::string*>, 4> files = {{
    {"primitives", &request.primitivesPath},
    {"collision", &request.collisionPath},
    {"armor", &request.armorPath},
    {"armorvisual", &request.armorVisualPath},
  }};
  for (const auto& [slot, pathText] : files)
  {
    hash.updateField(slot);
    if (pathText->empty())
    {
      hash.updateField("absent");
      continue;
    }
    const fs::path path = cstdmf::u8path(*pathText);
    InputStamp stamp;
    std::string problem;
    if (!stampOf(path, stamp))
      return std::nullopt;
    // The source's own name does not change the output; a companion's does (its data section is
    // named after the file). The size goes first, as updateField would put it.
    hash.updateField(slot == "primitives" ? std::string() : cstdmf::toUtf8(path.filename()));
    hash.updateField(std::to_string(stamp.size));
    if (!content_cache::hashFile(path, hash, problem))
      return std::nullopt;
    if (stamps)
      stamps->push_back(std::move(stamp));
  }
  return hash.finish();
}

std::string templateText(std::string_view text, std::string_view sourcePath)
{
  std::string result;
  result.reserve(text.size());
  size_t i = 0;
  while (i < text.size())
  {
    if (!sourcePath.empty() && text.substr(i, sourcePath.size()) == sourcePath)
    {
      result += kMarker;
      result += kSourceCode;
      i += sourcePath.size();
      continue;
    }
    if (text[i] == kMarker)
      result += kMarker;
    result += text[i++];
  }
  return result;
}

std::string expandText(std::string_view text, std::string_view sourcePath)
{
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i)
  {
    if (text[i] != kMarker || i + 1 == text.size())
    {
      result += text[i];
      continue;
    }
    ++i;
    if (text[i] == kSourceCode)
      result += sourcePath;
    else
      result += text[i];
  }
  return result;
}

void replayMessages(const std::vector<CachedMessage>& messages, const std::string& sourcePath)
{
  for (const CachedMessage& message : messages)
  {
    const auto priority = static_cast<DebugMessagePriority>(message.priority);
    if (message.priority < 0 || message.priority >= cstdmf::kPriorityCount || !cstdmf::shouldLog(priority))
      continue;
    cstdmf::emit(priority, message.category.c_str(), ZR_SOURCE_LOCATION, expandText(message.text, sourcePath));
  }
}

ModelCache::ModelCache(const CacheSettings& settings) : m_settings(settings)
{
  if (!settings.directory.empty())
    m_local = std::make_unique<content_cache::LocalStore>(settings.directory);
  if (!settings.url.empty())
    m_remote = std::make_unique<content_cache::RemoteStore>(
      settings.url, content_cache::RemoteTimeouts{std::min(settings.timeoutSeconds, 5L), settings.timeoutSeconds});
}

bool ModelCache::prepare()
{
  if (m_settings.directory.empty())
    return true;
  std::error_code error;
  fs::create_directories(m_settings.directory, error);
  if (error || !fs::is_directory(m_settings.directory, error))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot use cache folder '{}': {}\n",
               cstdmf::toUtf8(m_settings.directory), error ? error.message() : std::string("not a directory"));
    return false;
  }
  return true;
}

namespace
{
// The outcome of a look into the folder: true on a hit; a corrupt entry is reported (it counts as
// a miss).
bool localHit(content_cache::LocalStore::Lookup found, const std::string& problem, const std::string& sourceText)
{
  if (found == content_cache::LocalStore::Lookup::Corrupt)
    ZR_MSG_FMT(kWarning, "", "cache entry for {} is corrupt ({}); converting again\n", sourceText, problem);
  return found == content_cache::LocalStore::Lookup::Hit;
}
} // namespace

std::optional<CacheEntry> ModelCache::lookup(const Digest& key, const std::string& sourceText)
{
  CacheEntry entry;
  std::string problem;
  if (m_local && localHit(m_local->load(key, entry, problem), problem, sourceText))
    return entry;
  if (m_remote)
  {
    // A remote hit is kept in the folder from the downloaded bytes themselves, once they are known
    // to be sound.
    const auto keepLocally = [&](std::string_view encoded) {
      std::string localProblem;
      if (!m_local->store(key, encoded, localProblem))
        ZR_MSG_FMT(kWarning, "", "cannot keep the result of {} in the cache folder: {}\n", sourceText, localProblem);
    };
    switch (m_remote->load(key, entry, m_local ? content_cache::EntryBytes(keepLocally) : nullptr, problem))
    {
    case content_cache::RemoteStore::Lookup::Hit:
      return entry;
    case content_cache::RemoteStore::Lookup::Corrupt:
      ZR_MSG_FMT(kWarning, "", "remote cache entry for {} is corrupt ({}); converting again\n", sourceText, problem);
      break;
    case content_cache::RemoteStore::Lookup::Unavailable:
      if (!problem.empty())
        ZR_MSG_FMT(kWarning, "", "remote cache unavailable ({}); going on without it\n", problem);
      break;
    case content_cache::RemoteStore::Lookup::Miss:
      break;
    }
  }
  return std::nullopt;
}

std::unique_ptr<content_cache::LocalStore::OpenEntry> ModelCache::open(const Digest& key, const std::string& sourceText)
{
  if (!m_local)
    return nullptr;
  auto entry = std::make_unique<content_cache::LocalStore::OpenEntry>();
  std::string problem;
  if (localHit(m_local->open(key, *entry, problem), problem, sourceText))
    return entry;
  return nullptr;
}

void ModelCache::close(content_cache::LocalStore::OpenEntry& entry, std::string problem, const std::string& sourceText)
{
  const bool sound = problem.empty();
  m_local->close(entry, sound, problem);
  if (!sound)
    (void)localHit(content_cache::LocalStore::Lookup::Corrupt, problem, sourceText);
}

void ModelCache::store(const Digest& key, const CacheEntry& entry, const std::string& sourceText)
{
  const std::string encoded = content_cache::encodeEntry(key, entry);
  std::string problem;
  if (m_local && !m_local->store(key, encoded, problem))
    ZR_MSG_FMT(kWarning, "", "cannot keep the result of {} in the cache folder: {}\n", sourceText, problem);
  if (m_remote && !m_remote->store(key, encoded, problem) && !problem.empty())
    ZR_MSG_FMT(kWarning, "", "remote cache refused or failed an upload ({}); no more uploads in this run\n",
               problem);
}

void ModelCache::finish()
{
  if (m_local && m_settings.maxBytes > 0)
    (void)m_local->evict(m_settings.maxBytes);
}

CachedConversion::CachedConversion(ModelCache* cache, const GeometryCompiler::Request& request,
                                   const CompileOptions& options, std::string outputText)
  : m_cache(cache), m_request(request), m_options(options), m_outputText(std::move(outputText))
{
}

namespace
{
// A result's figures as the cache keeps them: how much was measured, and the statistics in the
// report's own form.
std::string encodeFigures(const CompileStatistics& statistics, CachedConversion::Figures measured)
{
  ModelReport model;
  model.statistics = statistics;
  return std::to_string(static_cast<int>(measured)) + "\n" + modelReportToJson(model);
}

CachedConversion::Figures decodeFigures(std::string_view text, CompileStatistics& statistics)
{
  const size_t lineEnd = text.find('\n');
  ModelReport model;
  if (lineEnd != 1 || text[0] < '1' || text[0] > '2' || !modelReportFromJson(text.substr(2), model))
    return CachedConversion::Figures::None;
  statistics = std::move(model.statistics);
  return static_cast<CachedConversion::Figures>(text[0] - '0');
}

// Where level `number` of a chain is kept: a key of its own, made from the model's.
Digest levelKey(const Digest& modelKey, unsigned number)
{
  return content_cache::keyHash(content_cache::toHex(modelKey) + " level " + std::to_string(number));
}

// A kept level's figures, in the report's form; "end" marks where the chain ended.
constexpr std::string_view kChainEnd = "end";
} // namespace

bool CachedConversion::replay(bool withoutErrors, Figures wanted)
{
  if (!m_cache)
    return false;
  m_key = modelKey(m_request, m_options, ToolIdentity::current(), &m_stamps);
  if (!m_key)
    return false; // an unreadable input: the conversion says what is wrong
  return replayKnown(withoutErrors, wanted, true);
}

bool CachedConversion::replayKnown(bool withoutErrors, Figures wanted, bool pieces)
{
  // The folder's entry is copied to the output a piece at a time: a warm run then neither holds
  // nor zeroes a buffer as large as the output. Its checksum is known only at the end, so nothing
  // below acts on what it says before then except to give the replay up; the output's temporary
  // file is dropped when the copy finds the entry corrupt, and the whole entry is looked up again
  // (the server may hold a sound one).
  std::unique_ptr<content_cache::LocalStore::OpenEntry> open =
    pieces ? m_cache->open(*m_key, m_request.primitivesPath) : nullptr;
  std::optional<CacheEntry> entry;
  if (!open)
  {
    entry = m_cache->lookup(*m_key, m_request.primitivesPath);
    if (!entry)
      return false;
  }
  const CacheEntry& head = open ? open->reader->head() : *entry;
  if (withoutErrors && std::any_of(head.messages.begin(), head.messages.end(), [](const auto& message) {
        return message.priority >= static_cast<int32_t>(DebugMessagePriority::Error);
      }))
    return false;
  if (wanted != Figures::None && decodeFigures(head.figures, m_figures) < wanted)
    return false;
  // What this run did not ask for is not reported, as a conversion would not have measured it.
  if (wanted == Figures::Statistics)
    for (CompileStatistics::RenderSet& set : m_figures.renderSets)
    {
      set.before.overdraw.reset();
      set.after.overdraw.reset();
    }
  // A chain is used whole or not at all: every level up to its end must be kept.
  std::vector<std::pair<LevelReport, CacheEntry>> levels;
  for (unsigned number = 1; number <= m_levelsRequested; ++number)
  {
    std::optional<CacheEntry> level = m_cache->lookup(levelKey(*m_key, number), m_request.primitivesPath);
    if (!level)
      return false;
    if (level->figures == kChainEnd)
      break;
    ModelReport figures;
    if (!modelReportFromJson(level->figures, figures) || figures.levels.size() != 1)
      return false;
    levels.emplace_back(std::move(figures.levels.front()), std::move(*level));
  }
  // Written whole or not at all, and by the compiler's own writer, so that its temporary file is
  // removed with the run's others when the run is stopped. When it cannot be written, the
  // conversion runs and reports the failure in its own words.
  if (open)
  {
    std::string problem;
    const fileio::WriteResult written = fileio::writeWholeFileInPieces(
      m_outputText, [&](const fileio::PieceSink& sink) { return open->reader->copyOutput(sink, problem); });
    if (!written && written.status == fileio::WriteStatus::Abandoned && !problem.empty())
    {
      m_cache->close(*open, std::move(problem), m_request.primitivesPath);
      return replayKnown(withoutErrors, wanted, false);
    }
    if (!written)
      return false;
    m_replayedBytes = open->reader->outputSize();
    m_cache->close(*open, std::string(), m_request.primitivesPath);
  }
  else
  {
    if (!fileio::writeWholeFile(m_outputText, std::as_bytes(std::span<const char>(entry->output))))
      return false;
    m_replayedBytes = entry->output.size();
  }
  if (!levels.empty())
  {
    std::error_code error;
    fs::create_directories(levelPath(m_output, 1).parent_path(), error);
  }
  for (auto& [level, kept] : levels)
  {
    level.output = cstdmf::toUtf8(levelPath(m_output, level.number));
    if (!fileio::writeWholeFile(level.output, std::as_bytes(std::span<const char>(kept.output))))
      return false;
    m_levels.push_back(std::move(level));
  }
  if (entry)
    content_cache::keepSpareBuffer(std::move(entry->output));
  replayMessages(head.messages, m_request.primitivesPath);
  return true;
}

void CachedConversion::keep(const BinaryPtr& written, const std::vector<ModelMessages::Message>& messages,
                            const CompileStatistics* statistics, Figures measured,
                            const std::vector<GeometryCompiler::Level>* levels)
{
  if (!m_cache || !m_key || !written)
    return;
  CacheEntry entry;
  for (const ModelMessages::Message& message : messages)
    entry.messages.push_back(CachedMessage{static_cast<int32_t>(message.priority), message.category,
                                           templateText(message.text, m_request.primitivesPath)});
  if (statistics && measured != Figures::None)
    entry.figures = encodeFigures(*statistics, measured);
  // An input that changed while it was converted may not match the key: nothing is kept.
  if (!unchanged(m_stamps))
    return;
  // The bytes the compile wrote, never the file read back: another process may have replaced it.
  entry.output.assign(written->data(), written->len());
  // The levels first: a model entry found by another run has its chain beside it.
  if (levels)
  {
    for (const GeometryCompiler::Level& level : *levels)
    {
      ModelReport figures;
      figures.levelsRequested = 1;
      figures.levels.push_back(LevelReport{level.number, {}, level.triangles, level.vertices, level.bytes->len(),
                                           level.errorAbsolute, level.errorRelative, level.ratio});
      CacheEntry kept;
      kept.figures = modelReportToJson(figures);
      kept.output.assign(level.bytes->data(), level.bytes->len());
      m_cache->store(levelKey(*m_key, level.number), kept, m_request.primitivesPath);
    }
    if (levels->size() < m_levelsRequested)
    {
      CacheEntry end;
      end.figures = kChainEnd;
      m_cache->store(levelKey(*m_key, static_cast<unsigned>(levels->size() + 1)), end, m_request.primitivesPath);
    }
  }
  m_cache->store(*m_key, entry, m_request.primitivesPath);
}

} // namespace vertexmill
