// File and folder names outside ASCII, end to end: they travel through the command line (UTF-16
// into wmain on Windows), the file system, the output names and the messages unchanged. Written
// for Windows, where a narrow path would pass through the ANSI code page and lose them, and run
// on every platform.

#include "tool_test_support.hpp"

namespace
{
using namespace vertexmill_test;

// модели / корабль / выход: Cyrillic, outside the Western code page 1252 that Wine and many
// Windows installations use; 船 and 🚢 are outside every single-byte code page, and 🚢 needs a
// UTF-16 surrogate pair.
const std::string kModels = "\xD0\xBC\xD0\xBE\xD0\xB4\xD0\xB5\xD0\xBB\xD0\xB8";
const std::string kShip = "\xD0\xBA\xD0\xBE\xD1\x80\xD0\xB0\xD0\xB1\xD0\xBB\xD1\x8C";
const std::string kOut = "\xD0\xB2\xD1\x8B\xD1\x85\xD0\xBE\xD0\xB4";
const std::string kBoat = "\xE8\x88\xB9 \xF0\x9F\x9A\xA2";

class NonAsciiPaths : public VertexmillTool
{
protected:
  void SetUp() override
  {
    VertexmillTool::SetUp();
    writeFile(path(kModels + "/" + kShip + ".primitives"), validPrimitives({"hull", "turret"}));
    writeFile(path(kModels + "/" + kBoat + "/" + kBoat + ".primitives"), validPrimitives());
    fs::create_directories(path(kOut));
  }
};

TEST_F(NonAsciiPaths, DefaultModeConvertsTheModel)
{
  const std::string source = str(kModels + "/" + kShip + ".primitives");
  const RunResult result = run({"--verbose", source, str(kOut)});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, usedFiles(source, str(kOut + "/" + kShip + ".geometry")));
  EXPECT_EQ(result.err, "");
  EXPECT_GT(fs::file_size(path(kOut + "/" + kShip + ".geometry")), 0u);

  // Named options and a companion file beside the model.
  writeFile(path(kModels + "/" + kBoat + "/" + kBoat + ".collision"), "companion bytes that are no model");
  const RunResult named = run({"--src-path", str(kModels + "/" + kBoat + "/" + kBoat + ".primitives"), "--dst-path",
                               str(kOut)});
  EXPECT_EQ(named.status, 0) << named.err;
  EXPECT_GT(fs::file_size(path(kOut + "/" + kBoat + ".geometry")), 0u);
  // Either carried into the file (collision count at byte 16) or reported by its full name.
  const std::string geometry = readFile(path(kOut + "/" + kBoat + ".geometry"));
  EXPECT_TRUE(readU32(geometry, 16) == 1 ||
              named.err.find("'" + str(kModels + "/" + kBoat + "/" + kBoat + ".collision") + "'") != std::string::npos)
    << named.err;
}

TEST_F(NonAsciiPaths, TreeModeMirrorsTheFolders)
{
  const RunResult result = run({"--verbose", "--tree", str(kModels), str(kOut)});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find(usedFiles(str(kModels + "/" + kShip + ".primitives"),
                                      str(kOut + "/" + kModels + "/" + kShip + ".geometry"))),
            std::string::npos)
    << result.out;
  EXPECT_NE(result.out.find(usedFiles(str(kModels + "/" + kBoat + "/" + kBoat + ".primitives"),
                                      str(kOut + "/" + kModels + "/" + kBoat + "/" + kBoat + ".geometry"))),
            std::string::npos)
    << result.out;
  EXPECT_TRUE(endsWith(result.out, "Success: 2 files generated\n\n")) << result.out;

  // The same bytes as the default mode writes for the same model.
  const std::string tree = readFile(path(kOut + "/" + kModels + "/" + kShip + ".geometry"));
  ASSERT_EQ(run({"-q", str(kModels + "/" + kShip + ".primitives"), str(kOut)}).status, 0);
  EXPECT_FALSE(tree.empty());
  EXPECT_EQ(readFile(path(kOut + "/" + kShip + ".geometry")), tree);
}

TEST_F(NonAsciiPaths, RelativePathsFromAWorkingDirectoryOutsideAscii)
{
  // "." names the folder the tool runs in: the output folder is named after it.
  const RunResult result = run({"--verbose", "--tree", ".", "../" + kOut}, path(kModels));
  EXPECT_EQ(result.status, 0) << result.err;
  const fs::path shown = cstdmf::u8path("../" + kOut) / cstdmf::u8path(kModels) / cstdmf::u8path(kShip + ".geometry");
  EXPECT_NE(result.out.find("==> " + u8(shown) + "\n"), std::string::npos) << result.out;
  EXPECT_GT(fs::file_size(path(kOut + "/" + kModels + "/" + kShip + ".geometry")), 0u);
}

TEST_F(NonAsciiPaths, ExitStatusesOneToThree)
{
  // 1: the parser names the argument it refuses, in the bytes it was given.
  const RunResult bad = run({"-q", str(kModels), str(kOut), kBoat});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "ERROR: unexpected argument " + kBoat + "\n");
  EXPECT_EQ(bad.out, "");

  // 2: path checks, with the path in the message.
  writeFile(path(kModels + "/" + kShip + ".PRIMITIVES"), validPrimitives());
  const RunResult extension = run({str(kModels + "/" + kShip + ".PRIMITIVES"), str(kOut)});
  EXPECT_EQ(extension.status, 2);
  EXPECT_EQ(extension.err,
            "ERROR: wrong " + str(kModels + "/" + kShip + ".PRIMITIVES") + " extension ( must be .primitives )\n\n");
  const RunResult notADirectory = run({"--tree", str(kModels + "/" + kShip + ".primitives"), str(kOut)});
  EXPECT_EQ(notADirectory.status, 2);
  EXPECT_EQ(notADirectory.err,
            "ERROR: path " + str(kModels + "/" + kShip + ".primitives") + " is not a directory\n\n");
  const RunResult missing = run({"-q", str(kModels + "/" + kBoat + ".primitives"), str(kOut)});
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.out + missing.err, "");

  // 3: a model that is no section container; the compiler names it.
  writeFile(path(kModels + "/" + kBoat + ".primitives"), kInvalidPrimitives);
  const RunResult broken = run({"--verbose", str(kModels + "/" + kBoat + ".primitives"), str(kOut)});
  EXPECT_EQ(broken.status, 3);
  EXPECT_EQ(broken.out, usedFiles(str(kModels + "/" + kBoat + ".primitives"), str(kOut + "/" + kBoat + ".geometry")));
  EXPECT_NE(broken.err.find("'" + str(kModels + "/" + kBoat + ".primitives") + "'"), std::string::npos) << broken.err;
  EXPECT_FALSE(fs::exists(path(kOut + "/" + kBoat + ".geometry")));
}

} // namespace
