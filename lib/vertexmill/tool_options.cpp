#include "vertexmill/tool_options.hpp"

#include "cstdmf/path_utils.hpp"
#include "fw/arg_parser.hpp"
#include "fw/bounded_number.hpp"

#include <charconv>
#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vertexmill
{
namespace
{
using FW::ArgParser;

constexpr const char* kDescription =
  "Convert primitives file(s) to single geometry file or all primitives found recursively to respective geometry "
  "files in tree mode.\n"
  "Main primitive file should be named as 'MODEL_NAME.primitives'\n"
  "without '_lod' or '_Full' in it's MODEL_NAME.\n"
  "All additional geometry files must be placed in 'lods' directory near main file and named as "
  "MODEL_NAME_Full.geometry or MODEL_NAME_lod<n>.geometry (where <n> is number of lod).";

// A switch without a value that sets `target` to `value`.
template <typename T>
ArgParser::Option flag(std::string longName, char shortName, std::string description, T& target, T value)
{
  return {
    .kind = ArgParser::Kind::Flag,
    .longName = std::move(longName),
    .shortName = shortName,
    .description = std::move(description),
    .callback = [&target, value](std::string_view) {
      target = value;
      return true;
    },
  };
}

// A switch with a value; `take` stores it and says whether it was one the option accepts.
ArgParser::Option value(std::string longName, std::string description, std::string valueName, std::string expected,
                        std::function<bool(std::string_view)> take)
{
  return {
    .kind = ArgParser::Kind::Value,
    .longName = std::move(longName),
    .description = std::move(description),
    .valueName = std::move(valueName),
    .expected = std::move(expected),
    .callback = std::move(take),
  };
}

// A path given by its switch or by its place on the command line.
ArgParser::Option path(const char* name, std::string description, std::filesystem::path& target)
{
  return {
    .kind = ArgParser::Kind::Value,
    .longName = name,
    .description = std::move(description),
    .flags = ArgParser::kOptionalPositional,
    .positionalName = name,
    .valueName = "path",
    .callback = [&target](std::string_view text) {
      target = cstdmf::u8path(text);
      return true;
    },
  };
}

// A file name an option writes: never empty and, unless `standardOutput`, never "-".
std::function<bool(std::string_view)> fileName(std::string& target, bool standardOutput)
{
  return [&target, standardOutput](std::string_view text) {
    target = std::string(text);
    return !text.empty() && (standardOutput || text != "-");
  };
}

// Any text but the empty one.
std::function<bool(std::string_view)> someText(std::optional<std::string>& target)
{
  return [&target](std::string_view text) {
    target = std::string(text);
    return !text.empty();
  };
}

// A whole number from low to high, stored shifted left by `shift` (20: MiB to bytes).
template <typename T>
std::function<bool(std::string_view)> number(T& target, uint64_t low, uint64_t high, unsigned shift = 0)
{
  return [&target, low, high, shift](std::string_view text) {
    const std::optional<uint64_t> parsed = FW::parseBoundedNumber(text, low, high);
    if (parsed)
      target = static_cast<T>(*parsed << shift);
    return parsed.has_value();
  };
}

// A decimal number within (low, high) or [low, high] as `inclusive` says, for a level-of-detail
// option; it records that such an option was given.
std::function<bool(std::string_view)> fraction(ToolOptions& o, const char* name, float& target, double low,
                                               double high, bool inclusive)
{
  return [&o, name, &target, low, high, inclusive](std::string_view text) {
    if (o.lodTuning.empty())
      o.lodTuning = name;
    double parsed = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(parsed))
      return false;
    if (inclusive ? (parsed < low || parsed > high) : (parsed <= low || parsed >= high))
      return false;
    target = static_cast<float>(parsed);
    return true;
  };
}

void registerOptions(ArgParser::Builder& builder, ToolOptions& o)
{
  builder.add(flag<int32_t>("quiet", 'q', "don't produce output", o.verbosity, 0))
    .add(flag<int32_t>("verbose", 'v', "print used files list", o.verbosity, 2))
    .add(flag("tree", 0, "process all files found recursive ( enable tree mode )", o.tree, true));
  builder
    .add(path("src-path", "path to main primitives file in default modeor directory to search this files in tree mode",
              o.srcPath))
    .add(path("dst-path", "path to destination directory", o.dstPath));
  ArgParser::Option jobs =
    value("jobs", "convert N models at once, and use N threads within a model (0: one per processor this process may use)", "N",
          "a whole number from 0 to " + std::to_string(kMaxJobs), number(o.jobs, 0, kMaxJobs));
  jobs.shortName = 'j';
  builder.add(std::move(jobs))
    .add(flag("keep-going", 0, "in tree mode convert every model even after failures, then list the failed ones",
              o.keepGoing, true))
    .add(value("time-limit", "with --keep-going, a model still converting after S seconds fails (default 600)", "S",
               "a whole number of seconds from 1 to 86400", number(o.modelTimeout, 1, 86400)))
    .add(value("memory-limit",
               "with --keep-going, the memory a model's conversion may use, in MiB (default 4096; 0: none)", "MIB",
               "a whole number of MiB from 0 to 1048576",
               [&o](std::string_view text) {
                 unsigned long long bytes = 0;
                 const bool taken = number(bytes, 0, 1u << 20, 20)(text);
                 if (taken)
                   o.modelMemory = bytes;
                 return taken;
               }))
    .add(flag("incremental", 0, "skip models whose .geometry file is newer than their sources and the tool",
              o.incremental, true))
    .add(flag("strict", 0, "a model whose conversion logs any error fails: no file is written for it", o.strict, true))
    .add(value("report", "write statistics of every model as one JSON document to FILE", "FILE",
               "a file name, or - for standard output", fileName(o.reportPath, true)))
    .add(value("cache",
               "keep converted models in the cache folder DIR and take them from it when their inputs "
               "are the same (default: $VERTEXMILL_CACHE)",
               "DIR", "", someText(o.cache.directory)))
    .add(value("cache-url",
               "share converted models through the HTTP cache server at URL (<URL>/ac/, <URL>/cas/; "
               "default: $VERTEXMILL_CACHE_URL)",
               "URL", "", someText(o.cache.url)))
    .add(value("cache-max-size",
               "after the run, remove the least recently used entries of the cache folder until it "
               "holds at most SIZE bytes (K, M, G, T suffixes; default: $VERTEXMILL_CACHE_MAX_SIZE, "
               "else no bound)",
               "SIZE", "a number of bytes, with an optional K, M, G or T suffix",
               [&o](std::string_view text) {
                 o.cache.maxSize = parseCacheSize(text);
                 return o.cache.maxSize.has_value();
               }))
    .add(value("cache-timeout", "give up on a cache server request after SECONDS (default 10)", "SECONDS",
               "a whole number of seconds from 1 to 600",
               [&o](std::string_view text) {
                 const std::optional<long> parsed = parseCacheTimeout(text);
                 if (parsed)
                   o.cache.timeoutSeconds = *parsed;
                 return parsed.has_value();
               }))
    .add(flag("no-cache", 0, "use no cache, whatever the environment says", o.cache.off, true))
    .add(value("shard",
               "in tree mode convert only the models of shard K of N (1 <= K <= N), chosen by their "
               "relative paths; auto: K/N from $VERTEXMILL_SHARD or a Slurm job array",
               "K/N", "K/N with 1 <= K <= N <= 65536, or auto",
               [&o](std::string_view text) {
                 o.shardAuto = text == "auto";
                 o.shard = parseShard(text);
                 return o.shard.has_value() || o.shardAuto;
               }))
    .add(value("depfile",
               "in default mode also write FILE, a Makefile-syntax list of the files the model was made "
               "from, for Ninja and Make",
               "FILE", "a file name (standard output is not one)", fileName(o.depfilePath, false)))
    .add(value("report-html", "write the report as one self-contained HTML page, with previews, to FILE", "FILE",
               "a file name (standard output is not one)", fileName(o.reportHtmlPath, false)))
    .add(value("compare",
               "with --report-html, open the page with what changed since FILE, the --report of an earlier "
               "run: models added, removed, failed since, working again, and changed by more than 1%",
               "FILE", "a file name", fileName(o.comparePath, false)))
    .add(flag("report-overdraw", 0,
              "with --report or --report-html, also measure the overdraw of every render set (costly: "
              "about a third of the optimisation again)",
              o.reportOverdraw, true))
    .add(value("lods",
               "also write N simplified levels of detail of every main model, as "
               "lods/MODEL_NAME_lod<n>.geometry beside its .geometry file",
               "N", "a whole number from 0 to " + std::to_string(kMaxLevels), number(o.lods.levels, 0, kMaxLevels)))
    .add(value("lod-ratio", "with --lods, each level keeps about R of the triangles of the level before it (default 0.5)",
               "R", "a number greater than 0 and less than 1", fraction(o, "--lod-ratio", o.lods.ratio, 0.0, 1.0, false)))
    .add(value("lod-error",
               "with --lods, the largest deviation of a level from the main model, relative to the model's size "
               "(default 0.01)",
               "E", "a number from 0 to 1", fraction(o, "--lod-error", o.lods.maxError, 0.0, 1.0, true)))
    .add({.kind = ArgParser::Kind::Flag,
          .longName = "lod-sloppy",
          .description = "with --lods, collapse meshes whose topology stops the simplifier regardless of it (may open "
                         "cracks)",
          .callback = [&o](std::string_view) {
            if (o.lodTuning.empty())
              o.lodTuning = "--lod-sloppy";
            o.lods.sloppy = true;
            return true;
          }})
    .add(flag("stats", 0, "print one line of figures per model on standard output", o.stats, true))
    .add(flag("no-progress", 0, "do not show the progress line on a terminal", o.progress, false))
    .add(flag("version", 'V', "print the tool's name and version", o.showVersion, true));
}

} // namespace

bool parseToolOptions(int argc, const char* const* argv, ToolOptions& options)
{
  ArgParser parser(
    kDescription, [&options](ArgParser::Builder& builder) { registerOptions(builder, options); },
    ArgParser::kBuiltinHelp | ArgParser::kStopAfterHelp);
  const bool parsed = parser.parse(argc, argv);
  options.helpShown = parser.helpShown();
  return parsed;
}

} // namespace vertexmill
