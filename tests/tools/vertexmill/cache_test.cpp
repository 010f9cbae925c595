// The converted-model cache, shards and dependency files, end to end through the built tool.

#include "tool_test_support.hpp"

#include "geometry_inspect/inspect_command.hpp"
#include "vertexmill/model_cache.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>
#include <thread>

using namespace vertexmill_test;

namespace
{
// A model whose conversion logs warnings that name its source file: a section the compiler does
// not know, and vertices with zero normals.
std::string warnedPrimitives()
{
  std::string base = validPrimitives({"hull"}, true);
  const BinaryPtr block = blockOf(base);
  std::vector<std::pair<std::string, BinaryPtr>> sections;
  EXPECT_TRUE(parseBinSectionEntries(block, [&](const char* name, int nameLength, const char* data, int dataLength) {
    sections.emplace_back(std::string(name, static_cast<size_t>(nameLength)),
                          blockOf(std::string(data, static_cast<size_t>(dataLength))));
  }));
  sections.emplace_back("hull.junk", blockOf("leftover"));
  const BinaryPtr container = writeBinSectionContainer(sections);
  return container ? std::string(container->data(), container->len()) : std::string();
}

size_t countOf(const std::string& text, const std::string& what)
{
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

std::vector<fs::path> entriesIn(const fs::path& cache)
{
  std::vector<fs::path> entries;
  if (!fs::exists(cache))
    return entries;
  for (const auto& file : fs::recursive_directory_iterator(cache))
    if (file.is_regular_file())
      entries.push_back(file.path());
  return entries;
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to)
{
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}
} // namespace

TEST_F(VertexmillTool, CacheHitLooksExactlyLikeAConversion)
{
  // The same bytes under two paths: the second is a hit, and says everything the first said,
  // naming its own source.
  writeFile(path("a/ship.primitives"), warnedPrimitives());
  writeFile(path("b/boat.primitives"), warnedPrimitives());
  fs::create_directories(path("outA"));
  fs::create_directories(path("outB"));
  fs::create_directories(path("plain"));
  const std::string cache = str("cache");

  const RunResult plain = run({"--verbose", str("b/boat.primitives"), str("plain")});
  const RunResult miss = run({"--verbose", "--cache", cache, str("a/ship.primitives"), str("outA")});
  ASSERT_EQ(miss.status, 0) << miss.err;
  ASSERT_EQ(entriesIn(path("cache")).size(), 1u);
  EXPECT_EQ(countOf(miss.err, "WARNING: "), 2u) << miss.err;
  EXPECT_NE(miss.err.find(str("a/ship.primitives")), std::string::npos) << miss.err;

  const RunResult hit = run({"--verbose", "--cache", cache, "--report", str("r.json"), str("b/boat.primitives"),
                             str("outB")});
  EXPECT_EQ(hit.status, plain.status);
  EXPECT_EQ(hit.out, replaceAll(plain.out, str("plain"), str("outB")));
  EXPECT_EQ(hit.err, plain.err);
  EXPECT_EQ(readFile(path("outB/boat.geometry")), readFile(path("plain/boat.geometry")));
  EXPECT_EQ(readFile(path("outB/boat.geometry")), readFile(path("outA/ship.geometry")));
  const auto report = nlohmann::json::parse(readFile(path("r.json")));
  EXPECT_EQ(report["models"][0]["status"], "converted");
  EXPECT_EQ(report["models"][0]["cache"], "hit");
  EXPECT_EQ(report["models"][0]["warnings"].size(), 2u);

  // Quiet, a hit shows nothing, like a conversion.
  const RunResult quiet = run({"-q", "--cache", cache, str("b/boat.primitives"), str("outB")});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.out + quiet.err, "");
}

TEST_F(VertexmillTool, CacheKeepsNoFailureAndRebuildsACorruptEntry)
{
  writeFile(path("src/bad.primitives"), kInvalidPrimitives);
  writeFile(path("src/good.primitives"), validPrimitives());
  fs::create_directories(path("out"));
  const std::string cache = str("cache");
  EXPECT_EQ(run({"--cache", cache, str("src/bad.primitives"), str("out")}).status, 3);
  EXPECT_TRUE(entriesIn(path("cache")).empty());

  ASSERT_EQ(run({"--cache", cache, str("src/good.primitives"), str("out")}).status, 0);
  const std::string converted = readFile(path("out/good.geometry"));
  const std::vector<fs::path> entries = entriesIn(path("cache"));
  ASSERT_EQ(entries.size(), 1u);
  fs::resize_file(entries[0], fs::file_size(entries[0]) / 2);

  const RunResult rebuilt = run({"--cache", cache, str("src/good.primitives"), str("out")});
  EXPECT_EQ(rebuilt.status, 0);
  EXPECT_EQ(countOf(rebuilt.err, "WARNING: cache entry for " + str("src/good.primitives") + " is corrupt"), 1u)
    << rebuilt.err;
  EXPECT_EQ(readFile(path("out/good.geometry")), converted);
  const RunResult again = run({"--cache", cache, str("src/good.primitives"), str("out")});
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(readFile(entries[0]).size() > fs::file_size(entries[0]) / 2, true);

  // A flipped byte in the output's part of the entry shows only once the output has been copied:
  // the copy is dropped, the model converted again, and nothing is left beside the output.
  std::string entry = readFile(entries[0]);
  entry[entry.size() - 20] = static_cast<char>(entry[entry.size() - 20] ^ 1);
  writeFile(entries[0], entry);
  const RunResult flipped = run({"--cache", cache, str("src/good.primitives"), str("out")});
  EXPECT_EQ(flipped.status, 0);
  EXPECT_EQ(countOf(flipped.err, "checksum mismatch); converting again"), 1u) << flipped.err;
  EXPECT_EQ(readFile(path("out/good.geometry")), converted);
  size_t files = 0;
  for ([[maybe_unused]] const auto& file : fs::directory_iterator(path("out")))
    ++files;
  EXPECT_EQ(files, 1u);
  EXPECT_NE(readFile(entries[0]), entry);
}

TEST_F(VertexmillTool, TwoProcessesFillOneCacheAtOnce)
{
  for (int i = 0; i < 12; ++i)
    writeFile(path("tree/m" + std::to_string(i) + ".primitives"),
              validPrimitives({"s" + std::to_string(i), "t"}, i % 3 == 0));
  for (const char* out : {"out1", "out2", "out3", "plain"})
    fs::create_directories(path(out));
  const std::string program = u8(fs::absolute(cstdmf::u8path(kToolPath)));
  std::vector<std::thread> runs;
  std::optional<int> statuses[2];
  for (int p = 0; p < 2; ++p)
    runs.emplace_back([&, p] {
      const std::string n = std::to_string(p + 1);
      statuses[p] = platform::runProcess(program, {"--tree", "--jobs", "2", "--cache", str("cache"), str("tree"),
                                                   str("out" + n)},
                                         {u8(m_root / ("o" + n)), u8(m_root / ("e" + n)), ""});
    });
  for (auto& thread : runs)
    thread.join();
  EXPECT_EQ(statuses[0], 0);
  EXPECT_EQ(statuses[1], 0);

  // Every entry is sound: a third run takes every model from the cache and writes what a plain
  // run writes.
  const RunResult third = run({"--tree", "--cache", str("cache"), "--report", str("r.json"), str("tree"),
                               str("out3")});
  EXPECT_EQ(third.status, 0);
  EXPECT_EQ(third.err.find("corrupt"), std::string::npos) << third.err;
  const auto report = nlohmann::json::parse(readFile(path("r.json")));
  for (const auto& model : report["models"])
    EXPECT_EQ(model["cache"], "hit") << model["source"];
  ASSERT_EQ(run({"--tree", str("tree"), str("plain")}).status, 0);
  for (int i = 0; i < 12; ++i)
  {
    const std::string name = "/tree/m" + std::to_string(i) + ".geometry";
    const std::string expected = readFile(path("plain" + name));
    EXPECT_FALSE(expected.empty());
    for (const char* out : {"out1", "out2", "out3"})
      EXPECT_EQ(readFile(path(out + name)), expected) << out << name;
  }
  EXPECT_EQ(entriesIn(path("cache")).size(), 12u); // no temporary files left
}

TEST_F(VertexmillTool, CacheMaxSizeBoundsTheFolder)
{
  for (int i = 0; i < 6; ++i)
    writeFile(path("tree/m" + std::to_string(i) + ".primitives"), validPrimitives({"s" + std::to_string(i)}));
  fs::create_directories(path("out"));
  ASSERT_EQ(run({"--tree", "--cache", str("cache"), str("tree"), str("out")}).status, 0);
  const std::vector<fs::path> entries = entriesIn(path("cache"));
  ASSERT_EQ(entries.size(), 6u);
  const uintmax_t entrySize = fs::file_size(entries[0]);
  const std::string bound = std::to_string(entrySize * 2 + entrySize / 2);
  ASSERT_EQ(run({"--tree", "--cache", str("cache"), "--cache-max-size", bound, str("tree"), str("out")}).status, 0);
  EXPECT_EQ(entriesIn(path("cache")).size(), 2u);
  EXPECT_EQ(run({"--cache-max-size", "12Q", str("tree"), str("out")}).status, 1);
  EXPECT_EQ(run({"--cache-max-size", "1", "--tree", "--cache", str("cache"), str("tree"), str("out")}).status, 0);
  EXPECT_TRUE(entriesIn(path("cache")).empty());
}

TEST(ModelCacheKey, EveryInputAndOptionChangesTheKeyButNotTheSourcePath)
{
  const fs::path root = fs::temp_directory_path() / ("vertexmill_key_" + std::to_string(platform::processId()));
  fs::remove_all(root);
  writeFile(root / "a/ship.primitives", validPrimitives());
  writeFile(root / "b/other.primitives", validPrimitives());
  writeFile(root / "a/ship.collision", "collision");
  GeometryCompiler::Request request;
  request.primitivesPath = u8(root / "a/ship.primitives");
  const vertexmill::ToolIdentity identity{"1.0", "build"};
  const auto key = [&](const GeometryCompiler::Request& r, CompileOptions options = {},
                       const vertexmill::ToolIdentity& tool = {"1.0", "build"}) {
    const auto digest = vertexmill::modelKey(r, options, tool);
    EXPECT_TRUE(digest.has_value());
    return digest ? content_cache::toHex(*digest) : std::string();
  };
  const std::string base = key(request);

  GeometryCompiler::Request moved = request;
  moved.primitivesPath = u8(root / "b/other.primitives");
  EXPECT_EQ(key(moved), base); // same bytes, another path and name

  std::set<std::string> keys{base};
  const auto expectNew = [&](const std::string& k, const char* what) { EXPECT_TRUE(keys.insert(k).second) << what; };
  expectNew(key(request, {false, true, true}), "encode");
  expectNew(key(request, {true, false, true}), "optimize");
  expectNew(key(request, {true, true, false}), "verify");
  expectNew(key(request, {true, true, true, true}), "refuse unpackable normals");
  expectNew(key(request, {}, {"1.1", "build"}), "version");
  expectNew(key(request, {}, {"1.0", "other build"}), "build id");
  GeometryCompiler::Request companion = request;
  companion.collisionPath = u8(root / "a/ship.collision");
  expectNew(key(companion), "collision added");
  GeometryCompiler::Request slot = request;
  slot.armorPath = companion.collisionPath;
  expectNew(key(slot), "same file in another slot");
  writeFile(root / "b/other.collision", "collision");
  GeometryCompiler::Request renamed = moved;
  renamed.collisionPath = u8(root / "b/other.collision");
  expectNew(key(renamed), "companion under another name");
  writeFile(root / "a/ship.collision", "collisioN");
  expectNew(key(companion), "companion bytes");
  writeFile(root / "a/ship.primitives", validPrimitives({"hull", "deck"}));
  expectNew(key(request), "primitives bytes");

  GeometryCompiler::Request missing = request;
  missing.primitivesPath = u8(root / "a/none.primitives");
  EXPECT_FALSE(vertexmill::modelKey(missing, {}, identity).has_value());
  fs::remove_all(root);
}

TEST(ModelCacheKey, MessageTemplatesNameTheirOwnSource)
{
  const std::string kept = vertexmill::templateText("in '/a/x.primitives' and \x01 '/a/x.primitives'", "/a/x.primitives");
  EXPECT_EQ(kept.find("/a/x"), std::string::npos);
  EXPECT_EQ(vertexmill::expandText(kept, "C:\\b\\y.primitives"),
            "in 'C:\\b\\y.primitives' and \x01 'C:\\b\\y.primitives'");
}

namespace
{
// Sets an environment variable for the children started while it lives.
class ScopedEnvironment
{
public:
  ScopedEnvironment(const char* name, const std::string& value) : m_name(name) { set(value.c_str()); }
  ~ScopedEnvironment() { set(nullptr); }

private:
  void set(const char* value)
  {
    platform::setEnvironmentVariable(m_name, value ? std::optional<std::string>(value) : std::nullopt);
  }
  const char* m_name;
};
} // namespace

TEST_F(VertexmillTool, ShardsSplitATreeAndTheirUnionIsOneRun)
{
  for (int i = 0; i < 16; ++i)
    writeFile(path("tree/" + std::string(i % 2 ? "x/" : "y/z/") + "m" + std::to_string(i) + ".primitives"),
              validPrimitives({"s" + std::to_string(i)}));
  fs::create_directories(path("all"));
  ASSERT_EQ(run({"--tree", "--report", str("all.json"), str("tree"), str("all")}).status, 0);
  size_t total = 0;
  std::vector<std::string> merge = {"geometry_inspect", "--merge-reports", str("merged.json")};
  for (int k = 1; k <= 3; ++k)
  {
    const std::string out = "shard" + std::to_string(k);
    fs::create_directories(path(out));
    // The scheduler's way: the shard from the environment.
    const ScopedEnvironment given("VERTEXMILL_SHARD", std::to_string(k) + "/3");
    const std::string part = str("part" + std::to_string(k) + ".json");
    merge.push_back(part);
    const RunResult shard = run({"--tree", "--verbose", "--shard", "auto", "--report", part, str("tree"), str(out)});
    ASSERT_EQ(shard.status, 0) << shard.err;
    for (const auto& file : fs::recursive_directory_iterator(path(out)))
    {
      if (!file.is_regular_file())
        continue;
      ++total;
      const fs::path relative = file.path().lexically_relative(path(out));
      EXPECT_EQ(readFile(file.path()), readFile(path("all") / relative)) << relative;
    }
  }
  EXPECT_EQ(total, 16u); // each model in exactly one shard

  // The parts merge into the report of one run: every model once, in source order.
  std::vector<const char*> argv;
  for (const std::string& arg : merge)
    argv.push_back(arg.c_str());
  std::ostringstream mergeOut, mergeErr;
  ASSERT_EQ(geometry_inspect::runInspect(int(argv.size()), argv.data(), mergeOut, mergeErr), 0) << mergeErr.str();
  const nlohmann::json merged = nlohmann::json::parse(readFile(path("merged.json")));
  const nlohmann::json single = nlohmann::json::parse(readFile(path("all.json")));
  std::vector<std::string> mergedSources, singleSources;
  for (const auto& model : merged["models"])
    mergedSources.push_back(model["source"]);
  for (const auto& model : single["models"])
    singleSources.push_back(model["source"]);
  EXPECT_TRUE(std::is_sorted(mergedSources.begin(), mergedSources.end()));
  std::sort(singleSources.begin(), singleSources.end());
  EXPECT_EQ(mergedSources, singleSources);
  EXPECT_EQ(merged["totals"]["models"], 16);
  EXPECT_EQ(merged["totals"]["triangles"], single["totals"]["triangles"]);
  EXPECT_FALSE(merged.contains("shard"));

  // Without a shard in the environment, auto is refused before any work.
  EXPECT_EQ(run({"--tree", "--shard", "auto", str("tree"), str("nowhere")}).status, 1);

  // The same relative paths in another place give the same shards.
  fs::create_directories(path("moved"));
  fs::rename(path("tree"), path("moved/tree"));
  fs::create_directories(path("again"));
  ASSERT_EQ(run({"--tree", "--shard", "2/3", str("moved/tree"), str("again")}).status, 0);
  for (const auto& file : fs::recursive_directory_iterator(path("shard2")))
  {
    if (file.is_regular_file())
    {
      EXPECT_TRUE(fs::exists(path("again") / file.path().lexically_relative(path("shard2"))));
    }
  }

  for (const char* bad : {"0/3", "4/3", "1/0", "1", "a/b", "1/3x", ""})
    EXPECT_EQ(run({"--tree", "--shard", bad, str("moved/tree"), str("again")}).status, 1) << bad;
  EXPECT_EQ(run({"--shard", "1/2", str("moved/tree/x/m1.primitives"), str("again")}).status, 1);
}

TEST_F(VertexmillTool, DepfileNamesOutputSourceAndCompanions)
{
  writeFile(path("my art/ship.primitives"), validPrimitives());
  writeFile(path("my art/ship.collision"), "collision");
  writeFile(path("my art/ship.armor"), "armor");
  writeFile(path("my art/bad.primitives"), kInvalidPrimitives);
  fs::create_directories(path("out $dir"));
  const RunResult converted =
    run({"--depfile", str("ship.d"), str("my art/ship.primitives"), str("out $dir")});
  ASSERT_EQ(converted.status, 0) << converted.err;
  const auto word = [&](const std::string& relative) {
    return replaceAll(replaceAll(str(relative), " ", "\\ "), "$", "$$");
  };
  EXPECT_EQ(readFile(path("ship.d")), word("out $dir/ship.geometry") + ": \\\n  " + word("my art/ship.primitives") +
                                        " \\\n  " + word("my art/ship.collision") + " \\\n  " +
                                        word("my art/ship.armor") + "\n");

  // A failed model writes no dependency file; one that cannot be written is refused before any work.
  EXPECT_EQ(run({"--depfile", str("bad.d"), str("my art/bad.primitives"), str("out $dir")}).status, 3);
  EXPECT_FALSE(fs::exists(path("bad.d")));
  const RunResult unwritable =
    run({"--depfile", str("missing/ship.d"), str("my art/ship.primitives"), str("out $dir")});
  EXPECT_EQ(unwritable.status, 1); // refused before any work
  EXPECT_NE(unwritable.err.find("cannot write depfile '" + str("missing/ship.d") + "'"), std::string::npos)
    << unwritable.err;
  EXPECT_EQ(run({"--tree", "--depfile", str("x.d"), str("my art"), str("out $dir")}).status, 1);
}


TEST_F(VertexmillTool, CacheFromTheEnvironmentUnlessNoCache)
{
  writeFile(path("src/ship.primitives"), validPrimitives());
  fs::create_directories(path("out"));
  {
    const ScopedEnvironment cache("VERTEXMILL_CACHE", str("env cache"));
    EXPECT_EQ(run({"--no-cache", str("src/ship.primitives"), str("out")}).status, 0);
    EXPECT_TRUE(entriesIn(path("env cache")).empty());
    EXPECT_EQ(run({str("src/ship.primitives"), str("out")}).status, 0);
    EXPECT_EQ(entriesIn(path("env cache")).size(), 1u);
    // The option wins over the variable.
    EXPECT_EQ(run({"--cache", str("option cache"), str("src/ship.primitives"), str("out")}).status, 0);
    EXPECT_EQ(entriesIn(path("option cache")).size(), 1u);
    const ScopedEnvironment size("VERTEXMILL_CACHE_MAX_SIZE", "lots");
    const RunResult bad = run({str("src/ship.primitives"), str("out")});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("VERTEXMILL_CACHE_MAX_SIZE"), std::string::npos) << bad.err;
  }
  {
    // A folder outside ASCII and outside any ANSI code page, from the environment.
    const std::string name = "env \xD0\xBA\xD1\x8D\xD1\x88 \xE7\xBC\x93\xE5\xAD\x98"; // кэш 缓存
    const ScopedEnvironment cache("VERTEXMILL_CACHE", str(name));
    EXPECT_EQ(run({str("src/ship.primitives"), str("out")}).status, 0);
    EXPECT_EQ(entriesIn(path(name)).size(), 1u);
  }
  // A cache folder that cannot be made: nothing is done.
  writeFile(path("file"), "x");
  const RunResult unusable = run({"--cache", str("file/cache"), str("src/ship.primitives"), str("out")});
  EXPECT_EQ(unusable.status, 2);
  EXPECT_NE(unusable.err.find("cannot use cache folder '" + str("file/cache") + "'"), std::string::npos)
    << unusable.err;
}
