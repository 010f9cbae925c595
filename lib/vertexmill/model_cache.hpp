#pragma once
// The converted-model cache as the tool uses it (--cache, --cache-url): the key of a model, the
// lookup before converting, the replay of a hit and the recording of a conversion.
//
// The key is the SHA-256 of the tool's identity (version and the build id of the converting
// code), the compiler switches, and the bytes of the .primitives file and of every companion file
// with its slot and file name. The source's path is not part of it: the same bytes under another
// path hit. The messages a conversion logs are kept with the result (the source path in them
// replaced by a placeholder) and replayed on a hit at their levels, so that a hit looks exactly
// like a conversion on the console.

#include "content_cache/local_store.hpp"
#include "content_cache/remote_store.hpp"
#include "cstdmf/debug.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "vertexmill/model_messages.hpp"
#include "vertexmill/report.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vertexmill
{

struct CacheSettings
{
  std::filesystem::path directory; // empty: no local folder
  std::string url;                 // empty: no remote tier
  uint64_t maxBytes = 0;           // 0: the folder is not bounded
  long timeoutSeconds = 10;        // per remote request
};

// The version and build id of the converting code that a key is made for.
struct ToolIdentity
{
  std::string version;
  std::string buildId;

  static ToolIdentity current();
};

// Reads the model's input files and hashes them into a key. Empty when a file cannot be read (the
// conversion then reports it). `stamps` receives the size and time of each file read, to tell
// later whether they changed while the model was converted.
struct InputStamp
{
  std::filesystem::path path;
  uintmax_t size = 0;
  std::filesystem::file_time_type time;
  bool operator==(const InputStamp&) const = default;
};
[[nodiscard]] std::optional<content_cache::Digest> modelKey(const GeometryCompiler::Request& request,
                                                            const CompileOptions& options,
                                                            const ToolIdentity& identity,
                                                            std::vector<InputStamp>* stamps = nullptr);

// Messages are kept with the source path as a placeholder, so that a hit under another path names
// its own source. templateText/expandText convert between the two forms.
std::string templateText(std::string_view text, std::string_view sourcePath);
std::string expandText(std::string_view text, std::string_view sourcePath);

// Shared by every model of a run (all threads).
class ModelCache
{
public:
  explicit ModelCache(const CacheSettings& settings);

  // Creates the cache folder when it is missing. False, after an ERROR naming it, when it cannot
  // be created: the run then does nothing.
  [[nodiscard]] bool prepare();

  // Looks the key up locally, then remotely (a remote hit is kept locally too). Reports a corrupt
  // entry or an unreachable server as a WARNING naming the model's source; both count as misses.
  [[nodiscard]] std::optional<content_cache::CacheEntry> lookup(const content_cache::Digest& key,
                                                                const std::string& sourceText);

  // Opens the folder's entry for the key to be copied a piece at a time, its output never held
  // whole. Null without a folder, on a miss, or after a WARNING on an entry found corrupt.
  [[nodiscard]] std::unique_ptr<content_cache::LocalStore::OpenEntry> open(const content_cache::Digest& key,
                                                                           const std::string& sourceText);
  // After its output was copied: `problem` empty marks the entry as just used; else the entry was
  // found corrupt on the way, which is reported as a WARNING and removes it.
  void close(content_cache::LocalStore::OpenEntry& entry, std::string problem, const std::string& sourceText);

  // Keeps a conversion's result in the folder and on the server. Failures are WARNINGs.
  void store(const content_cache::Digest& key, const content_cache::CacheEntry& entry,
             const std::string& sourceText);

  // End of the run: bounds the folder (--cache-max-size).
  void finish();

  // What the cache was made with (a worker process opens the same cache).
  const CacheSettings& settings() const { return m_settings; }

private:
  CacheSettings m_settings;
  std::unique_ptr<content_cache::LocalStore> m_local;
  std::unique_ptr<content_cache::RemoteStore> m_remote;
};

// Logs the recorded messages again, in order, at their levels, naming `sourcePath`.
void replayMessages(const std::vector<content_cache::CachedMessage>& messages, const std::string& sourcePath);

// One model's way through the cache, around its conversion in convertModel:
//   CachedConversion cached(cache, request, outputText);
//   if (cached.replay()) -> the output is written and its messages logged: done
//   mark = messages.count(); compile(...);
//   cached.keep(compiler.written(), messages.since(mark), statistics);
// Without a cache every step does nothing.
class CachedConversion
{
public:
  // `options` are those the model is compiled with: they are part of its key.
  CachedConversion(ModelCache* cache, const GeometryCompiler::Request& request, const CompileOptions& options,
                   std::string outputText);

  // How much of the conversion's figures a result must carry to be used: none, the statistics,
  // or the statistics with overdraw (--report-overdraw). A result kept without them is converted
  // again, and kept again with them.
  enum class Figures
  {
    None,
    Statistics,
    WithOverdraw,
  };

  // The model makes a chain of `requested` levels of detail beside `output`: a replay needs every
  // level kept with the model (or the mark that the chain ended before it) and writes them too, and
  // keep() keeps them.
  void expectLevels(unsigned requested, std::filesystem::path output)
  {
    m_levelsRequested = requested;
    m_output = std::move(output);
  }
  // After a replay with levels: the levels it wrote.
  const std::vector<LevelReport>& levels() const { return m_levels; }

  // True when the result came from the cache and the output file is written. With
  // `withoutErrors` a result whose conversion logged an ERROR is not used.
  [[nodiscard]] bool replay(bool withoutErrors = false, Figures wanted = Figures::None);
  // After a replay that wanted figures: the ones the conversion measured.
  const CompileStatistics& figures() const { return m_figures; }
  // The size of the output a replay wrote.
  uint64_t replayedBytes() const { return m_replayedBytes; }
  // Keeps a successful conversion's output (`written`: the bytes it wrote, null when it wrote
  // none) and the messages it logged, and its figures when it measured them (`measured` says how
  // much of them).
  void keep(const BinaryPtr& written, const std::vector<ModelMessages::Message>& messages,
            const CompileStatistics* statistics = nullptr,
            Figures measured = Figures::None, const std::vector<GeometryCompiler::Level>* levels = nullptr);

private:
  // replay() once the key is known; `pieces` reads the folder's entry a piece at a time.
  bool replayKnown(bool withoutErrors, Figures wanted, bool pieces);

  ModelCache* m_cache;
  const GeometryCompiler::Request& m_request;
  CompileOptions m_options;
  std::string m_outputText;
  std::optional<content_cache::Digest> m_key;
  std::vector<InputStamp> m_stamps;
  uint64_t m_replayedBytes = 0;
  CompileStatistics m_figures;
  unsigned m_levelsRequested = 0;
  std::filesystem::path m_output;
  std::vector<LevelReport> m_levels;
};

} // namespace vertexmill
