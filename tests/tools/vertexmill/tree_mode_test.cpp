// Tree mode at scale, end to end: several models at once, --keep-going, --incremental, the
// progress line, and trees that are hard to walk.

#include "tool_test_support.hpp"

#include <algorithm>
#include <chrono>

namespace fs = std::filesystem;
using namespace vertexmill_test;

namespace
{

// Every regular file below `root`, by relative path, with its bytes.
std::map<std::string, std::string> snapshot(const fs::path& root)
{
  std::map<std::string, std::string> files;
  std::error_code error;
  if (!fs::exists(root, error))
    return files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
  {
    if (entry.is_regular_file())
      files[u8(entry.path().lexically_relative(root))] = readFile(entry.path());
  }
  return files;
}

// The outputs named by the used-files list, in the order listed.
std::vector<std::string> listedOutputs(const std::string& out)
{
  std::vector<std::string> listed;
  for (size_t pos = 0; (pos = out.find("==> ", pos)) != std::string::npos; pos += 4)
    listed.push_back(out.substr(pos + 4, out.find('\n', pos) - pos - 4));
  return listed;
}

size_t countOf(const std::string& text, const std::string& part)
{
  size_t count = 0;
  for (size_t pos = 0; (pos = text.find(part, pos)) != std::string::npos; pos += part.size())
    ++count;
  return count;
}

class TreeMode : public VertexmillTool
{
protected:
  // A tree of models of different sizes in nested directories. Some have unusable normals: the
  // verifier reports them on standard error and the model is still written, which gives every
  // run something to print on both streams.
  void makeTree(int models, const std::string& tree = "tree")
  {
    for (int i = 0; i < models; ++i)
    {
      const std::string name = tree + "/" + (i % 3 == 0 ? "" : "group" + std::to_string(i % 4) + "/") +
                               (i % 5 == 4 ? "lods/" : "") + "model" + std::to_string(i);
      std::vector<std::string> sets;
      for (int s = 0; s <= i % 4; ++s)
        sets.push_back("m" + std::to_string(i) + "_set" + std::to_string(s));
      writeFile(path(name + ".primitives"), validPrimitives(sets, i % 3 == 1));
      if (i % 4 == 1)
        writeFile(path(name + ".collision"), "not a collision model");
    }
    fs::create_directories(path("out"));
  }

  struct TreeResult
  {
    RunResult run;
    std::map<std::string, std::string> files;
  };

  TreeResult convert(std::vector<std::string> args, const std::string& tree = "tree")
  {
    fs::remove_all(path("out"));
    fs::create_directories(path("out"));
    args.push_back("--tree");
    args.push_back(str(tree));
    args.push_back(str("out"));
    TreeResult result;
    result.run = run(args);
    result.files = snapshot(path("out"));
    return result;
  }
};

// --- Several models at once ---------------------------------------------------------------------

TEST_F(TreeMode, AnyNumberOfJobsGivesTheSameFilesAndMessages)
{
  makeTree(17);
  const TreeResult one = convert({"--verbose", "--jobs", "1"});
  ASSERT_EQ(one.run.status, 0) << one.run.err;
  EXPECT_EQ(one.files.size(), 17u);
  EXPECT_TRUE(endsWith(one.run.out, "Success: 17 files generated\n\n")) << one.run.out;
  size_t warnedSets = 0;
  for (int i = 1; i < 17; i += 3)
    warnedSets += i % 4 + 1;
  EXPECT_EQ(countOf(one.run.err, "WARNING: [Verifier] Found 3 vertices with invalid normals"), warnedSets) << one.run.err;

  for (const std::vector<std::string>& jobs : std::vector<std::vector<std::string>>{
         {"--jobs", "4"}, {"-j3"}, {"--jobs=0"}, {"-j", "32"}})
  {
    const TreeResult many = convert({"--verbose", jobs.front(), jobs.back()});
    EXPECT_EQ(many.run.status, 0) << jobs.back();
    EXPECT_EQ(many.run.out, one.run.out) << jobs.back();
    EXPECT_EQ(many.run.err, one.run.err) << jobs.back();
    EXPECT_TRUE(many.files == one.files) << jobs.back();
  }

  // Without --verbose only the reports on standard error remain, in the same order.
  const TreeResult plain = convert({"-j4"});
  EXPECT_EQ(plain.run.status, 0);
  EXPECT_EQ(plain.run.out, "");
  EXPECT_EQ(plain.run.err, one.run.err);
  EXPECT_TRUE(plain.files == one.files);
}

TEST_F(TreeMode, FirstFailureStopsStartingModelsWithAnyJobs)
{
  makeTree(16);
  const TreeResult reference = convert({"--verbose"});
  ASSERT_EQ(reference.run.status, 0) << reference.run.err;
  const std::vector<std::string> walk = listedOutputs(reference.run.out);
  ASSERT_EQ(walk.size(), 16u);

  // Break the model in the middle of the walk.
  const std::string broken = walk[7];
  const std::string brokenSource =
    str("tree/") + u8(fs::path(broken).lexically_relative(path("out/tree")).replace_extension(".primitives"));
  writeFile(brokenSource, kInvalidPrimitives);

  const TreeResult one = convert({"--verbose", "-j1"});
  EXPECT_EQ(one.run.status, 3);
  EXPECT_EQ(listedOutputs(one.run.out), std::vector<std::string>(walk.begin(), walk.begin() + 8));
  EXPECT_EQ(one.run.out.find("Success"), std::string::npos);
  EXPECT_NE(one.run.err.find(brokenSource), std::string::npos) << one.run.err;
  EXPECT_EQ(one.files.size(), 7u);

  // With several jobs the models are still listed in walk order, each with its own messages,
  // and exactly the listed ones (but the broken one) are written. Which models after the broken
  // one were started before it failed depends on timing.
  const TreeResult many = convert({"--verbose", "-j4"});
  EXPECT_EQ(many.run.status, 3);
  EXPECT_EQ(many.run.out.find("Success"), std::string::npos);
  const std::vector<std::string> listed = listedOutputs(many.run.out);
  auto inWalk = walk.begin();
  for (const std::string& output : listed)
  {
    inWalk = std::find(inWalk, walk.end(), output);
    ASSERT_NE(inWalk, walk.end()) << output << " is not in walk order\n" << many.run.out;
  }
  EXPECT_NE(std::find(listed.begin(), listed.end(), broken), listed.end());
  EXPECT_EQ(many.files.size(), listed.size() - 1);
  for (const std::string& output : listed)
    EXPECT_EQ(many.files.count(u8(fs::path(output).lexically_relative(path("out")))), output == broken ? 0u : 1u);
  const std::string brokenErrors = one.run.err.substr(one.run.err.find("ERROR: "));
  EXPECT_NE(many.run.err.find(brokenErrors), std::string::npos) << many.run.err;

  // The largest files are started first: a large broken model fails before most of the tree is
  // converted, and then no further model is started.
  // (Timing decides how many others get through meanwhile; half of 40 leaves a wide margin.)
  writeFile(brokenSource, kInvalidPrimitives + std::string(64 << 10, 'x'));
  for (int i = 0; i < 24; ++i)
    writeFile(path("tree/more/extra" + std::to_string(i) + ".primitives"), validPrimitives());
  const TreeResult early = convert({"--verbose", "-j2"});
  EXPECT_EQ(early.run.status, 3);
  EXPECT_LT(listedOutputs(early.run.out).size(), 20u) << early.run.out;
}

TEST_F(TreeMode, KeepGoingConvertsTheRestAndListsTheFailures)
{
  makeTree(12);
  const TreeResult reference = convert({"--verbose"});
  const std::vector<std::string> walk = listedOutputs(reference.run.out);
  ASSERT_EQ(walk.size(), 12u);
  std::vector<std::string> brokenSources;
  for (const size_t index : {2u, 9u})
  {
    brokenSources.push_back(str("tree/") +
                            u8(fs::path(walk[index]).lexically_relative(path("out/tree")).replace_extension(".primitives")));
    writeFile(brokenSources.back(), kInvalidPrimitives);
  }

  const TreeResult one = convert({"--keep-going", "-j1"});
  EXPECT_EQ(one.run.status, 3);
  EXPECT_EQ(one.files.size(), 10u);
  // The summary closes the run: each failed model in walk order with its first error.
  const std::string summaryStart = "ERROR: 2 of 12 models failed to convert:\n";
  const size_t summary = one.run.err.rfind(summaryStart);
  ASSERT_NE(summary, std::string::npos) << one.run.err;
  std::string expected = summaryStart;
  for (const std::string& source : brokenSources)
  {
    // The model's first error is the first line that names it.
    const size_t named = one.run.err.find(source);
    ASSERT_NE(named, std::string::npos) << one.run.err;
    const size_t lineStart = one.run.err.rfind('\n', named) + 1;
    const std::string line = one.run.err.substr(lineStart, one.run.err.find('\n', named) - lineStart);
    ASSERT_EQ(line.rfind("ERROR: ", 0), 0u) << line;
    expected += "  " + source + ": " + line.substr(7) + "\n";
  }
  EXPECT_EQ(one.run.err.substr(summary), expected + "\n");

  const TreeResult many = convert({"--keep-going", "--jobs", "3"});
  EXPECT_EQ(many.run.status, 3);
  EXPECT_EQ(many.run.err, one.run.err);
  EXPECT_TRUE(many.files == one.files);

  // Quiet: nothing at all, the status tells.
  const TreeResult quiet = convert({"--keep-going", "-q", "-j2"});
  EXPECT_EQ(quiet.run.status, 3);
  EXPECT_EQ(quiet.run.out + quiet.run.err, "");
  EXPECT_TRUE(quiet.files == one.files);
}

// --- Incremental --------------------------------------------------------------------------------

TEST_F(TreeMode, IncrementalConvertsOnlyWhatChanged)
{
  makeTree(6);
  // A copy of the tool whose time the test controls.
  const fs::path tool = m_root / "bin" / fs::path(kToolPath).filename();
  fs::create_directories(tool.parent_path());
  fs::copy_file(kToolPath, tool);
  const auto now = fs::file_time_type::clock::now();
  using std::chrono::hours;
  using std::chrono::minutes;
  fs::last_write_time(tool, now - hours(3));
  for (const auto& entry : fs::recursive_directory_iterator(path("tree")))
  {
    if (entry.is_regular_file())
      fs::last_write_time(entry.path(), now - hours(2));
  }
  const std::vector<std::string> args = {"--verbose", "--incremental", "-j2", "--tree", str("tree"), str("out")};

  const RunResult first = run(args, {}, u8(tool));
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(countOf(first.out, "(up to date)"), 0u);
  const std::vector<std::string> outputs = listedOutputs(first.out);
  ASSERT_EQ(outputs.size(), 6u);
  for (const std::string& output : outputs)
    fs::last_write_time(output, now - hours(1));
  const auto outputTimes = [&] {
    std::vector<fs::file_time_type> times;
    for (const std::string& output : outputs)
      times.push_back(fs::last_write_time(fs::path(output).replace_extension(".geometry")));
    return times;
  };
  const std::vector<fs::file_time_type> before = outputTimes();

  // Nothing changed: nothing converted, everything counted and listed as up to date.
  const RunResult second = run(args, {}, u8(tool));
  EXPECT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(countOf(second.out, "(up to date)\n"), 6u) << second.out;
  EXPECT_TRUE(endsWith(second.out, "Success: 6 files generated\n\n"));
  EXPECT_EQ(second.err, "");
  EXPECT_EQ(outputTimes(), before);

  // A touched source and a touched companion: exactly those two models.
  const std::string touched = "tree/" + u8(fs::path(outputs[3]).lexically_relative(path("out/tree")));
  fs::last_write_time(path(touched).replace_extension(".primitives"), now - minutes(30));
  std::string companionModel;
  for (const auto& entry : fs::recursive_directory_iterator(path("tree")))
  {
    if (entry.path().extension() == ".collision")
    {
      fs::last_write_time(entry.path(), now - minutes(30));
      companionModel = u8(fs::path(entry.path()).replace_extension(".primitives"));
      break;
    }
  }
  ASSERT_FALSE(companionModel.empty());
  const RunResult third = run(args, {}, u8(tool));
  EXPECT_EQ(third.status, 0) << third.err;
  EXPECT_EQ(countOf(third.out, "(up to date)\n"), 4u) << third.out;
  EXPECT_NE(third.out.find(str(touched).substr(0, str(touched).size() - 9) + ".primitives\n\n==> " + outputs[3] + "\n"),
            std::string::npos)
    << third.out;
  EXPECT_NE(third.out.find(companionModel + "\n\n==> "), std::string::npos) << third.out;
  const std::vector<fs::file_time_type> after = outputTimes();
  EXPECT_EQ(std::count_if(after.begin(), after.end(), [&](auto t) { return t > now - minutes(1); }), 2);

  // A newer tool makes every output out of date; a missing output is converted again. Times
  // minutes apart: some file systems and runtimes keep whole seconds only.
  for (const std::string& output : outputs)
    fs::last_write_time(output, now - hours(1));
  fs::last_write_time(tool, now - minutes(10));
  const RunResult newerTool = run(args, {}, u8(tool));
  EXPECT_EQ(newerTool.status, 0);
  EXPECT_EQ(countOf(newerTool.out, "(up to date)"), 0u);
  fs::remove(outputs[0]);
  const RunResult missing = run(args, {}, u8(tool));
  EXPECT_EQ(countOf(missing.out, "(up to date)\n"), 5u);
  EXPECT_TRUE(fs::exists(outputs[0]));
}

TEST_F(TreeMode, DefaultModeTakesJobsAndIncrementalToo)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"a", "b", "c", "d", "e", "f"}));
  fs::create_directories(path("out"));
  ASSERT_EQ(run({str("art/ship.primitives"), str("out")}).status, 0);
  const std::string oneJob = readFile(path("out/ship.geometry"));
  fs::remove(path("out/ship.geometry"));
  const RunResult many = run({"-j", "3", "--verbose", str("art/ship.primitives"), str("out")});
  EXPECT_EQ(many.status, 0);
  EXPECT_EQ(many.out, usedFiles(str("art/ship.primitives"), str("out/ship.geometry")));
  EXPECT_EQ(readFile(path("out/ship.geometry")), oneJob);

  // The output was written after the tool was built and after the source.
  fs::last_write_time(path("art/ship.primitives"), fs::last_write_time(path("out/ship.geometry")) - std::chrono::hours(1));
  const RunResult skipped = run({"--incremental", "--verbose", str("art/ship.primitives"), str("out")});
  EXPECT_EQ(skipped.status, 0);
  EXPECT_EQ(skipped.out, str("art/ship.primitives") + "\n\n==> " + str("out/ship.geometry") + " (up to date)\n\n");
}

TEST_F(TreeMode, IncrementalConvertsAgainWhatIsDamagedOrIncomplete)
{
  writeFile(path("art/ship.primitives"), validPrimitives({"a", "b"}));
  fs::create_directories(path("out"));
  ASSERT_EQ(run({str("art/ship.primitives"), str("out")}).status, 0);
  const std::string good = readFile(path("out/ship.geometry"));
  const auto age = [this] {
    fs::last_write_time(path("art/ship.primitives"), fs::last_write_time(path("out/ship.geometry")) - std::chrono::hours(1));
  };
  const std::vector<std::string> args = {"--incremental", "--verbose", str("art/ship.primitives"), str("out")};

  // Cut short, emptied or overwritten with noise, yet newer than the source.
  for (const std::string& damaged : {good.substr(0, good.size() / 2), std::string(), std::string(600, '\x5a')})
  {
    writeFile(path("out/ship.geometry"), damaged);
    age();
    const RunResult again = run(args);
    EXPECT_EQ(again.status, 0) << damaged.size();
    EXPECT_EQ(countOf(again.out, "(up to date)"), 0u) << damaged.size();
    EXPECT_NE(again.err.find("WARNING: the existing output " + str("out/ship.geometry") + " is damaged ("), std::string::npos)
      << again.err;
    EXPECT_EQ(readFile(path("out/ship.geometry")), good);
  }

  // A companion beside the source that the output lacks (it could not be read last time), even
  // one older than the output.
  writeFile(path("art/ship.collision"), "collision bytes");
  age();
  fs::last_write_time(path("art/ship.collision"), fs::last_write_time(path("art/ship.primitives")));
  const RunResult lacking = run(args);
  EXPECT_EQ(lacking.status, 0);
  EXPECT_EQ(countOf(lacking.out, "(up to date)"), 0u);
  EXPECT_EQ(lacking.err, "");
  age();
  EXPECT_EQ(countOf(run(args).out, "(up to date)"), 1u);
}

// --- Command line -------------------------------------------------------------------------------

TEST_F(TreeMode, BadJobCountsAreRefused)
{
  for (const std::string value : {"abc", "-1", "", "1.5", "2x", "+2", "99999999999", "100000"})
  {
    const RunResult result = run({"--tree", "--jobs", value, ".", "."});
    EXPECT_EQ(result.status, 1) << value;
    EXPECT_EQ(result.err, "ERROR: invalid value '" + value + "' for --jobs: expected a whole number from 0 to 1024\n")
      << value;
    EXPECT_EQ(result.out, "");
  }
  const RunResult missing = run({".", ".", "-j"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "ERROR: missing value after argument -j.\n");
}

// --- The progress line --------------------------------------------------------------------------

TEST_F(TreeMode, ProgressLineOnlyOnATerminal)
{
  // Models without warnings: nothing but the progress line reaches the terminal.
  for (int i = 0; i < 5; ++i)
    writeFile(path("tree/model" + std::to_string(i) + ".primitives"), validPrimitives());
  fs::create_directories(path("out"));
  // Not a terminal: standard error holds only the messages (checked byte for byte above); here
  // a terminal is made with script(1) when it is there.
  if (std::system("command -v script > /dev/null 2>&1") != 0)
    GTEST_SKIP() << "script(1) is not available";
  const fs::path typescript = m_root / "io" / "typescript";
  const std::string command = "script -q -e -c " +
                              shellQuote(shellQuote(kToolPath) + " -j2 --tree " + shellQuote(str("tree")) + " " +
                                         shellQuote(str("out")) + " > /dev/null") +
                              " " + shellQuote(typescript.string()) + " > /dev/null 2>&1 < /dev/null";
  ASSERT_EQ(exitStatusOf(std::system(command.c_str())), 0);
  const std::string shown = readFile(typescript);
  EXPECT_NE(shown.find("[0/5] "), std::string::npos) << shown;
  EXPECT_NE(shown.find(".primitives"), std::string::npos) << shown;
  // Cleared at the end: the last thing written is blanks back to the line's start.
  const size_t lastReturn = shown.rfind('\r');
  ASSERT_NE(lastReturn, std::string::npos);
  const size_t clearStart = shown.rfind('\r', lastReturn - 1);
  ASSERT_NE(clearStart, std::string::npos);
  const std::string clear = shown.substr(clearStart + 1, lastReturn - clearStart - 1);
  EXPECT_FALSE(clear.empty());
  EXPECT_EQ(clear.find_first_not_of(' '), std::string::npos) << shown;

  const std::string quietCommand = "script -q -e -c " +
                                   shellQuote(shellQuote(kToolPath) + " -q -j2 --tree " + shellQuote(str("tree")) +
                                              " " + shellQuote(str("out"))) +
                                   " " + shellQuote(typescript.string()) + " > /dev/null 2>&1 < /dev/null";
  ASSERT_EQ(exitStatusOf(std::system(quietCommand.c_str())), 0);
  EXPECT_EQ(readFile(typescript).find("[0/5]"), std::string::npos);

  // --no-progress turns it off and leaves nothing else on the terminal.
  const std::string offCommand = "script -q -e -c " +
                                 shellQuote(shellQuote(kToolPath) + " --no-progress -j2 --tree " +
                                            shellQuote(str("tree")) + " " + shellQuote(str("out"))) +
                                 " " + shellQuote(typescript.string()) + " > /dev/null 2>&1 < /dev/null";
  ASSERT_EQ(exitStatusOf(std::system(offCommand.c_str())), 0);
  const std::string off = readFile(typescript);
  EXPECT_EQ(off.find("[0/5]"), std::string::npos) << off;
  EXPECT_EQ(off.find('\r'), std::string::npos) << off;
}

// --- Trees that are hard to walk ----------------------------------------------------------------

TEST_F(TreeMode, LinksAndDirectoriesNamedLikeModels)
{
  writeFile(path("elsewhere/outside.primitives"), validPrimitives());
  writeFile(path("tree/real.primitives"), validPrimitives());
  writeFile(path("tree/dir.primitives/inner.primitives"), validPrimitives());
  std::error_code error;
  fs::create_directory_symlink(path("elsewhere"), path("tree/linked"), error);
  if (error)
    GTEST_SKIP() << "no symbolic links here: " << error.message();
  fs::create_symlink(path("elsewhere/outside.primitives"), path("tree/file_link.primitives"));
  fs::create_symlink(path("nowhere.primitives"), path("tree/dangling.primitives"));
  fs::create_directories(path("out"));

  const TreeResult result = convert({"-j2"});
  EXPECT_EQ(result.run.status, 0) << result.run.err;
  EXPECT_EQ(result.run.err, "");
  // The link to a directory is not entered; a link to a file is a model; a dangling link and a
  // directory named like a model are not, but what is inside that directory is.
  std::set<std::string> names;
  for (const auto& [name, bytes] : result.files)
    names.insert(name);
  EXPECT_EQ(names, (std::set<std::string>{"tree/real.geometry", "tree/file_link.geometry",
                                          "tree/dir.primitives/inner.geometry"}));
}

TEST_F(TreeMode, UnreadableFilesAndDirectories)
{
  makeTree(3);
  writeFile(path("tree/locked.primitives"), validPrimitives());
  fs::create_directories(path("tree/closed"));
  fs::permissions(path("tree/locked.primitives"), fs::perms::none);
  std::string tool = kToolPath;
  if (std::ifstream(path("tree/locked.primitives")).is_open())
  {
    // An administrator reads it anyway: run the tool as an ordinary user where that is possible.
    if (std::system("command -v setpriv > /dev/null 2>&1") != 0)
    {
      fs::permissions(path("tree/locked.primitives"), fs::perms::owner_all);
      GTEST_SKIP() << "permissions do not keep this user out and setpriv(1) is not available";
    }
    const fs::path wrapper = m_root / "bin" / "as_nobody";
    writeFile(wrapper, "#!/bin/sh\nexec setpriv --reuid=65534 --regid=65534 --clear-groups " + shellQuote(kToolPath) +
                         " \"$@\"\n");
    fs::permissions(wrapper, fs::perms::owner_all);
    fs::permissions(path("out"), fs::perms::all);
    tool = u8(wrapper);
  }

  const RunResult file = run({"--keep-going", "-j2", "--tree", str("tree"), str("out")}, {}, tool);
  EXPECT_EQ(file.status, 3);
  EXPECT_NE(file.err.find("  " + str("tree/locked.primitives") + ": "), std::string::npos) << file.err;
  EXPECT_EQ(snapshot(path("out")).size(), 3u);

  // A directory that cannot be read ends the run before any model is converted.
  fs::remove_all(path("out/tree"));
  fs::permissions(path("tree/closed"), fs::perms::none);
  const RunResult directory = run({"-q", "-j2", "--tree", str("tree"), str("out")}, {}, tool);
  EXPECT_EQ(directory.status, 4);
  EXPECT_EQ(directory.err.rfind("CRITICAL: cannot read directory " + str("tree/closed") + ": ", 0), 0u)
    << directory.err;
  EXPECT_TRUE(snapshot(path("out")).empty());
  fs::permissions(path("tree/closed"), fs::perms::owner_all);
  fs::permissions(path("tree/locked.primitives"), fs::perms::owner_all);
}

TEST_F(TreeMode, NamesThatAreNotUtf8)
{
#ifdef _WIN32
  GTEST_SKIP() << "Windows file names are UTF-16: none holds bytes that are not UTF-8";
#endif
  const std::string raw = "bad\xFF\xFEname";
  const std::string shown = "bad\xEF\xBF\xBD\xEF\xBF\xBDname";
  writeFile(path("tree/" + raw + ".primitives"), validPrimitives());
  writeFile(path("tree/sub" + raw + "/broken.primitives"), kInvalidPrimitives);
  fs::create_directories(path("out"));
  if (!fs::exists(path("tree/" + raw + ".primitives")))
    GTEST_SKIP() << "the file system refuses names that are not UTF-8";

  const TreeResult result = convert({"--verbose", "--keep-going", "-j2"});
  EXPECT_EQ(result.run.status, 3);
  // Written under its own name; shown with replacement characters.
  EXPECT_EQ(result.files.count("tree/" + raw + ".geometry"), 1u);
  EXPECT_NE(result.run.out.find(str("tree/") + shown + ".primitives\n"), std::string::npos) << result.run.out;
  EXPECT_NE(result.run.err.find("  " + str("tree/sub") + shown + "/broken.primitives: "), std::string::npos)
    << result.run.err;
  EXPECT_EQ(result.run.out.find(raw), std::string::npos);
  EXPECT_EQ(result.run.err.find(raw), std::string::npos);
}

TEST_F(TreeMode, DeepTreesAndLongNames)
{
#ifdef __MINGW32__
  GTEST_SKIP() << "MinGW's std::filesystem lists no directory whose path is longer than MAX_PATH";
#endif
  std::string deep = "tree";
  for (int level = 0; level < 40; ++level)
    deep += "/" + std::string(50, static_cast<char>('a' + level % 26));
  writeFile(path(deep + "/bottom.primitives"), validPrimitives());
  const std::string longName(200, 'n');
  writeFile(path("tree/" + longName + ".primitives"), validPrimitives());
  fs::create_directories(path("out"));

  const TreeResult result = convert({"-j2"});
  EXPECT_EQ(result.run.status, 0) << result.run.err;
  EXPECT_EQ(result.files.count(deep + "/bottom.geometry"), 1u);
  EXPECT_EQ(result.files.count("tree/" + longName + ".geometry"), 1u);

  // The longest name a model can have (255 bytes with ".primitives"). Its output name fits, but
  // the compiler writes through a temporary file whose longer name may not: then the model fails
  // with a message naming it, and nothing else goes wrong.
  const std::string longest(244, 'L');
  writeFile(path("tree/" + longest + ".primitives"), validPrimitives());
  if (!fs::exists(path("tree/" + longest + ".primitives")))
    return;
  const TreeResult tooLong = convert({"--keep-going", "-j2"});
  EXPECT_TRUE(tooLong.run.status == 0 || tooLong.run.status == 3) << tooLong.run.status;
  if (tooLong.run.status == 3)
  {
    EXPECT_NE(tooLong.run.err.find("  " + str("tree/" + longest + ".primitives") + ": "), std::string::npos)
      << tooLong.run.err;
  }
}

TEST_F(TreeMode, DestinationInsideTheSourceTree)
{
  makeTree(4, "art");
  // Sources clearly older than any output, also where file times keep whole seconds only.
  for (const auto& entry : fs::recursive_directory_iterator(path("art")))
  {
    if (entry.is_regular_file())
      fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  // The outputs land in art/art/...; they are never taken for models, also on later runs.
  for (const std::vector<std::string>& extra : std::vector<std::vector<std::string>>{
         {"--verbose", "-j2"}, {"--verbose", "-j2"}, {"--verbose", "--incremental", "-j2"}})
  {
    std::vector<std::string> args = extra;
    for (const std::string& arg : {std::string("--tree"), str("art"), str("art")})
      args.push_back(arg);
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(endsWith(result.out, "Success: 4 files generated\n\n")) << result.out;
    EXPECT_EQ(result.out.find(".geometry\n\n==>"), std::string::npos) << result.out;
  }
  EXPECT_FALSE(fs::exists(path("art/art/art")));
  EXPECT_EQ(countOf(run({"--verbose", "--incremental", "--tree", str("art"), str("art")}).out, "(up to date)"), 4u);
}

} // namespace
