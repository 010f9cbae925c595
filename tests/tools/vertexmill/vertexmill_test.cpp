// Runs the built vertexmill as a child process and checks its exit status and both output
// streams byte for byte.

#include "tool_test_support.hpp"

namespace fs = std::filesystem;
using namespace vertexmill_test;

namespace
{

// --- Command line -------------------------------------------------------------------------------

TEST_F(VertexmillTool, HelpAndVersionDoNothingElse)
{
  const std::string expected =
    "Usage: vertexmill [options] [src-path] [dst-path]\n"
    "\n"
    "Convert primitives file(s) to single geometry file or all primitives found recursively to respective geometry "
    "files in tree mode.\n"
    "Main primitive file should be named as 'MODEL_NAME.primitives'\n"
    "without '_lod' or '_Full' in it's MODEL_NAME.\n"
    "All additional geometry files must be placed in 'lods' directory near main file and named as "
    "MODEL_NAME_Full.geometry or MODEL_NAME_lod<n>.geometry (where <n> is number of lod).\n"
    "\n"
    "Options:\n"
    "  -q, --quiet                    don't produce output\n"
    "  -v, --verbose                  print used files list\n"
    "      --tree                     process all files found recursive ( enable tree mode )\n"
    "      --src-path <path>          path to main primitives file in default modeor directory to search "
    "this files in tree mode\n"
    "      --dst-path <path>          path to destination directory\n"
    "  -j, --jobs <N>                 convert N models at once, and use N threads within a model (0: one "
    "per processor this process may use)\n"
    "      --keep-going               in tree mode convert every model even after failures, then list "
    "the failed ones\n"
    "      --time-limit <S>           with --keep-going, a model still converting after S seconds fails "
    "(default 600)\n"
    "      --memory-limit <MIB>       with --keep-going, the memory a model's conversion may use, in MiB "
    "(default 4096; 0: none)\n"
    "      --incremental              skip models whose .geometry file is newer than their sources and "
    "the tool\n"
    "      --strict                   a model whose conversion logs any error fails: no file is written "
    "for it\n"
    "      --report <FILE>            write statistics of every model as one JSON document to FILE\n"
    "      --cache <DIR>              keep converted models in the cache folder DIR and take them from "
    "it when their inputs are the same (default: $VERTEXMILL_CACHE)\n"
    "      --cache-url <URL>          share converted models through the HTTP cache server at URL "
    "(<URL>/ac/, <URL>/cas/; default: $VERTEXMILL_CACHE_URL)\n"
    "      --cache-max-size <SIZE>    after the run, remove the least recently used entries of the cache "
    "folder until it holds at most SIZE bytes (K, M, G, T suffixes; default: $VERTEXMILL_CACHE_MAX_SIZE, "
    "else no bound)\n"
    "      --cache-timeout <SECONDS>  give up on a cache server request after SECONDS (default 10)\n"
    "      --no-cache                 use no cache, whatever the environment says\n"
    "      --shard <K/N>              in tree mode convert only the models of shard K of N (1 <= K <= "
    "N), chosen by their relative paths; auto: K/N from $VERTEXMILL_SHARD or a Slurm job array\n"
    "      --depfile <FILE>           in default mode also write FILE, a Makefile-syntax list of the "
    "files the model was made from, for Ninja and Make\n"
    "      --report-html <FILE>       write the report as one self-contained HTML page, with previews, "
    "to FILE\n"
    "      --compare <FILE>           with --report-html, open the page with what changed since FILE, the "
    "--report of an earlier run: models added, removed, failed since, working again, and changed by more "
    "than 1%\n"
    "      --report-overdraw          with --report or --report-html, also measure the overdraw of every "
    "render set (costly: about a third of the optimisation again)\n"
    "      --lods <N>                 also write N simplified levels of detail of every main model, as "
    "lods/MODEL_NAME_lod<n>.geometry beside its .geometry file\n"
    "      --lod-ratio <R>            with --lods, each level keeps about R of the triangles of the level "
    "before it (default 0.5)\n"
    "      --lod-error <E>            with --lods, the largest deviation of a level from the main model, "
    "relative to the model's size (default 0.01)\n"
    "      --lod-sloppy               with --lods, collapse meshes whose topology stops the simplifier "
    "regardless of it (may open cracks)\n"
    "      --stats                    print one line of figures per model on standard output\n"
    "      --no-progress              do not show the progress line on a terminal\n"
    "  -V, --version                  print the tool's name and version\n"
    "  -h, --help                     Display this message.\n";
  for (const char* help : {"--help", "-h"})
  {
    // Even with paths that would fail, nothing but the help happens.
    const RunResult result = run({help, "--tree", str("missing"), str("missing")});
    EXPECT_EQ(result.status, 0) << help;
    EXPECT_EQ(result.out, expected) << help;
    EXPECT_EQ(result.err, "") << help;
  }

  for (const char* flag : {"--version", "-V"})
  {
    const RunResult version = run({flag});
    EXPECT_EQ(version.status, 0) << flag;
    EXPECT_EQ(version.out, std::string("vertexmill ") + VERTEXMILL_VERSION + "\n") << flag;
    EXPECT_EQ(version.err, "") << flag;
  }
}

TEST_F(VertexmillTool, BadCommandLinesExitWithOne)
{
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
    {{"--bogus", "a", "b"}, "ERROR: unexpected argument --bogus.\n"},
    {{"a", "--dst-path"}, "ERROR: missing value after argument --dst-path.\n"},
    {{"-q", "a", "b", "c", "--bogus"}, "ERROR: unexpected argument c\n"},
    // Empty paths are refused by the tool itself, straight to standard error, even when quiet.
    {{}, kEmptyArguments},
    {{"--tree", str("")}, kEmptyArguments},
    {{"--quiet", "--src-path", str(""), "--dst-path", ""}, kEmptyArguments},
  };
  for (const auto& [args, err] : cases)
  {
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 1) << err;
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(result.out, "");
  }
}

// --- Path checks --------------------------------------------------------------------------------

TEST_F(VertexmillTool, MissingPathsAreBadArguments)
{
  writeFile(path("ship.primitives"), kInvalidPrimitives);
  fs::create_directories(path("out"));
  fs::create_directories(path("tree"));
  const std::string badArgument = "ERROR: bad argument: " + osMessage(std::errc::no_such_file_or_directory) + "\n\n";
  const std::vector<std::vector<std::string>> cases = {
    {str("ship.primitives"), str("missing")},
    {"--tree", str("tree"), str("missing")},
    {str("missing.primitives"), str("out")},
    {"--tree", str("missing"), str("out")},
    // Only directories below an existing dst are ever created.
    {str("ship.primitives"), str("missing/deeper")},
  };
  for (const auto& args : cases)
  {
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 2) << args.back();
    EXPECT_EQ(result.err, badArgument);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_FALSE(fs::exists(path("missing")));

  // Quiet: the status alone tells.
  const RunResult quiet = run({"-q", str("ship.primitives"), str("missing")});
  EXPECT_EQ(quiet.status, 2);
  EXPECT_EQ(quiet.out + quiet.err, "");
}

TEST_F(VertexmillTool, WrongExtensionOrKindOfPath)
{
  writeFile(path("model.PRIMITIVES"), validPrimitives());
  writeFile(path("ship.primitives"), validPrimitives());
  fs::create_directories(path("dir.primitives"));
  fs::create_directories(path("tree"));
  fs::create_directories(path("out"));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
    // The extension comparison is exact and case-sensitive.
    {{str("model.PRIMITIVES"), str("out")}, "ERROR: wrong " + str("model.PRIMITIVES") + " extension ( must be .primitives )\n\n"},
    {{str("dir.primitives"), str("out")}, "ERROR: path " + str("dir.primitives") + " is not a file\n\n"},
    {{"--tree", str("ship.primitives"), str("out")}, "ERROR: path " + str("ship.primitives") + " is not a directory\n\n"},
    {{"--verbose", "--tree", str("tree"), str("ship.primitives")},
     "ERROR: path " + str("ship.primitives") + " is existed file (must be directory to place result)\n"},
  };
  for (const auto& [args, err] : cases)
  {
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 2) << err;
    EXPECT_EQ(result.err, err);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_TRUE(fs::is_empty(path("out")));
}

TEST_F(VertexmillTool, SymbolicLinkLoops)
{
  fs::create_directories(path("tree/sub"));
  fs::create_directories(path("out"));
  std::error_code error;
  fs::create_symlink("loop.primitives", path("tree/sub/loop.primitives"), error);
  if (error)
    GTEST_SKIP() << "cannot create symbolic links here: " << error.message();

  // A status error other than "not found" on an argument is a bad argument too.
  const RunResult argument = run({str("tree/sub/loop.primitives"), str("out")});
  EXPECT_EQ(argument.status, 2);
  EXPECT_EQ(argument.err, "ERROR: bad argument: " + osMessage(std::errc::too_many_symbolic_link_levels) + "\n\n");

  // Met during the walk, it ends the run abnormally, with the reason on standard error.
  const RunResult walk = run({"-q", "--tree", str("tree"), str("out")});
  EXPECT_EQ(walk.status, 4);
  EXPECT_EQ(walk.err.rfind("CRITICAL: ", 0), 0u) << walk.err;
  EXPECT_NE(walk.err.find("loop.primitives"), std::string::npos) << walk.err;
  EXPECT_EQ(walk.out, "");
}

// --- Tree mode ----------------------------------------------------------------------------------

TEST_F(VertexmillTool, TreeWithoutModelsSucceedsWithZeroFiles)
{
  writeFile(path("tree/notes.txt"), "x");
  writeFile(path("tree/sub/upper.PRIMITIVES"), validPrimitives());
  writeFile(path("tree/sub/model.primitives.bak"), validPrimitives());
  fs::create_directories(path("tree/dir.primitives"));
  fs::create_directories(path("out"));

  const RunResult verbose = run({"--verbose", "--tree", "--src-path", str("tree"), "--dst-path", str("out")});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_EQ(verbose.out, "Success: 0 files generated\n\n");
  EXPECT_EQ(verbose.err, "");
  EXPECT_TRUE(fs::is_empty(path("out")));

  const RunResult plain = run({"--tree", str("tree"), str("out")});
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out + plain.err, "");
}

TEST_F(VertexmillTool, TreeOutputFolderIsNamedAfterTheSourceDirectory)
{
  // The model fails to convert, but the used-files list and the created directories already show
  // where its output goes.
  writeFile(path("art/ships/sub/deep/bad.primitives"), kInvalidPrimitives);
  fs::create_directories(path("out"));
  const fs::path ships = path("art/ships");
  struct Case
  {
    std::string src;
    fs::path workingDirectory;
  };
  const std::vector<Case> cases = {
    {".", ships}, {"./", ships}, {"../ships", ships}, {"..", ships / "sub"}, {u8(ships) + "/", {}},
  };
  for (const Case& c : cases)
  {
    fs::remove_all(path("out/ships"));
    const RunResult result = run({"--verbose", "--tree", c.src, str("out")}, c.workingDirectory);
    EXPECT_EQ(result.status, 3) << c.src;
    // The source is shown as given, followed by the path below it ("./sub/deep/bad.primitives";
    // on Windows with backslashes after the part that was given).
    const std::string shownSource = u8(cstdmf::u8path(c.src) / fs::path("sub/deep/bad.primitives").make_preferred());
    EXPECT_EQ(result.out, usedFiles(shownSource, str("out/ships/sub/deep/bad.geometry"))) << c.src;
    EXPECT_TRUE(fs::is_directory(path("out/ships/sub/deep"))) << c.src;
    EXPECT_FALSE(fs::exists(path("out/ships/sub/deep/bad.geometry"))) << c.src;
  }
}

TEST_F(VertexmillTool, TreeModeConvertsEveryModelIncludingLodAndFullFiles)
{
  writeFile(path("art/ship.primitives"), validPrimitives());
  writeFile(path("art/lods/ship_lod1.primitives"), validPrimitives({"hull", "turret"}));
  writeFile(path("art/lods/ship_Full.primitives"), validPrimitives());
  writeFile(path("art/readme.txt"), "x");
  fs::create_directories(path("out"));

  const RunResult result = run({"--verbose", "--tree", str("art"), str("out")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  for (const char* model : {"ship", "lods/ship_lod1", "lods/ship_Full"})
  {
    const std::string listed =
      usedFiles(str(std::string("art/") + model + ".primitives"), str(std::string("out/art/") + model + ".geometry"));
    EXPECT_NE(result.out.find(listed), std::string::npos) << model << "\n" << result.out;
    EXPECT_GT(fs::file_size(path("out/art/") / (std::string(model) + ".geometry")), 0u) << model;
  }
  EXPECT_TRUE(endsWith(result.out, "Success: 3 files generated\n\n")) << result.out;
}

TEST_F(VertexmillTool, FirstFailingModelEndsTheTreeRun)
{
  for (const char* name : {"a", "b", "sub/c", "sub/d", "e"})
    writeFile(path(std::string("tree/") + name + ".primitives"), validPrimitives());
  writeFile(path("tree/sub/bad.primitives"), kInvalidPrimitives);
  fs::create_directories(path("out"));

  const RunResult result = run({"--verbose", "--tree", str("tree"), str("out")});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out.find("Success"), std::string::npos);

  // The walk order is the file system's: whatever was listed before the bad model was written
  // and stays, the bad model is the last one listed, and nothing after it was looked at.
  std::vector<std::string> listed;
  for (size_t pos = 0; (pos = result.out.find("==> ", pos)) != std::string::npos; pos += 4)
    listed.push_back(result.out.substr(pos + 4, result.out.find('\n', pos) - pos - 4));
  ASSERT_FALSE(listed.empty()) << result.out;
  EXPECT_EQ(listed.back(), str("out/tree/sub/bad.geometry"));
  for (size_t i = 0; i + 1 < listed.size(); ++i)
    EXPECT_TRUE(fs::exists(listed[i])) << listed[i];
  std::set<std::string> written;
  for (const auto& entry : fs::recursive_directory_iterator(path("out")))
  {
    if (entry.is_regular_file())
      written.insert(u8(entry.path()));
  }
  EXPECT_EQ(written, std::set<std::string>(listed.begin(), listed.end() - 1));
}

// --- Default mode -------------------------------------------------------------------------------

TEST_F(VertexmillTool, DefaultModeConvertsOneModel)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"hull", "turret"}));
  fs::create_directories(path("out"));

  const RunResult plain = run({str("art/ship.primitives"), str("out")});
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.out + plain.err, "");
  EXPECT_GT(fs::file_size(path("out/ship.geometry")), 0u);
  fs::remove(path("out/ship.geometry"));

  // -v is --verbose.
  for (const char* flag : {"--verbose", "-v"})
  {
    fs::remove(path("out/ship.geometry"));
    const RunResult verbose = run({flag, "--src-path", "ship.primitives", "--dst-path", "../out"}, path("art"));
    EXPECT_EQ(verbose.status, 0) << verbose.err;
    EXPECT_EQ(verbose.out, usedFiles("ship.primitives", u8(fs::path("../out") / "ship.geometry"))) << flag;
    EXPECT_EQ(verbose.err, "") << flag;
    EXPECT_GT(fs::file_size(path("out/ship.geometry")), 0u) << flag;
  }
}

TEST_F(VertexmillTool, DefaultModeFailureExitsWithThree)
{
  const std::string name = "mod\xC3\xA8le.primitives";
  writeFile(path(name), kInvalidPrimitives);
  fs::create_directories(path("out"));

  // Positional and named paths mean the same; the list is shown before the conversion fails.
  for (const auto& args : std::vector<std::vector<std::string>>{
         {"--verbose", str(name), str("out")},
         {"--dst-path", str("out"), "--verbose", str(name)},
       })
  {
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, usedFiles(str(name), str("out/mod\xC3\xA8le.geometry")));
  }

  const RunResult quiet = run({"-q", str(name), str("out")});
  EXPECT_EQ(quiet.status, 3);
  EXPECT_EQ(quiet.out + quiet.err, "");
  EXPECT_FALSE(fs::exists(path("out/mod\xC3\xA8le.geometry")));
}

TEST_F(VertexmillTool, OutputDirectoryThatCannotBeCreated)
{
  writeFile(path("ship.primitives"), validPrimitives());
  writeFile(path("file"), "x");
  // Default mode does not check dst itself; making the output directory fails.
  const RunResult result = run({str("ship.primitives"), str("file")});
  EXPECT_EQ(result.status, 3);
  const std::string prefix = "ERROR: failed to create path " + str("file") + ": ";
  EXPECT_EQ(result.err.rfind(prefix, 0), 0u) << result.err;
  EXPECT_EQ(result.err.size(), result.err.find('\n') + 1) << result.err;
  EXPECT_EQ(result.out, "");
}

TEST_F(VertexmillTool, CompanionsNeedExactlyTheSourceStem)
{
  writeFile(path("art/ship.primitives"), validPrimitives());
  // Not model data: the compiler reports each one it is handed and still writes the model.
  std::vector<std::string> names = {"ship.collision",      "ship.armor",         "ship_lod1.collision",
                                    "ship_lod1.armor",     "lods/ship.collision", "ship.primitives.collision"};
#ifndef _WIN32
  // Windows file names ignore case: there this one is the model's own companion.
  names.push_back("Ship.armorvisual");
#endif
  for (const std::string& name : names)
    writeFile(path("art/" + name), "companion bytes that are no model");
  fs::create_directories(path("out"));

  const RunResult result = run({str("art/ship.primitives"), str("out")});
  EXPECT_EQ(result.status, 0) << result.err;
  const std::string geometry = readFile(path("out/ship.geometry"));
  ASSERT_GE(geometry.size(), 72u);
  // Picked up: either reported as unloadable or carried into the file (collision count at byte
  // 16, armor count at byte 20).
  EXPECT_TRUE(result.err.find("'" + str("art/ship.collision") + "'") != std::string::npos ||
              readU32(geometry, 16) == 1)
    << result.err;
  EXPECT_TRUE(result.err.find("'" + str("art/ship.armor") + "'") != std::string::npos || readU32(geometry, 20) == 1)
    << result.err;
  EXPECT_LE(readU32(geometry, 16), 1u);
  EXPECT_LE(readU32(geometry, 20), 1u);
  for (const char* ignored : {"ship_lod1", "lods/", "Ship.armorvisual", "primitives.collision"})
    EXPECT_EQ(result.err.find(ignored), std::string::npos) << ignored << "\n" << result.err;
}

} // namespace
