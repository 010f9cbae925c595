// Hundreds of damaged models through one --keep-going run: every model either becomes a file the
// inspector finds sound, or fails with a message that names it. A file the tool must still save
// although the engine cannot use all of it (an index section with no vertex section beside it, a
// section with no items) is named for what it is by the inspector.
#include "tool_test_support.hpp"

#include "geometry_inspect/geometry_inspection.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <algorithm>
#include <random>

namespace vertexmill_test
{
namespace
{
// Findings of the inspector that name what the tool is bound to save as it is.
bool isKeptOnPurpose(const std::string& text)
{
  return text.find("(saved as it is)") != std::string::npos;
}

struct SetShape
{
  std::string name;
  std::string vertexFormat = "xyznuv";
  std::string indexFormat = "list";
  uint32_t side = 3;          // vertices per side of a flat grid
  float normalLength = 1.0f;  // not 1: the verifier's assertion
  int64_t vertexCount = -1;   // the count written in the header; -1: the real one
  int64_t indexCount = -1;
  uint32_t indexShift = 0;    // added to every index
  bool vertices = true;
  bool indices = true;
};

std::string vertexSection(const SetShape& shape)
{
  std::string bytes = formatName(shape.vertexFormat.c_str());
  const uint32_t count = shape.side * shape.side;
  const uint32_t written = shape.vertexCount < 0 ? count : static_cast<uint32_t>(shape.vertexCount);
  appendPod(bytes, &written, 4);
  for (uint32_t y = 0; y < shape.side; ++y)
    for (uint32_t x = 0; x < shape.side; ++x)
    {
      const float vertex[8] = {float(x), float(y), 0.25f * float(x * y), 0.0f, 0.0f, shape.normalLength,
                               float(x) / float(shape.side), float(y) / float(shape.side)};
      appendPod(bytes, vertex, sizeof(vertex));
    }
  return bytes;
}

std::string indexSection(const SetShape& shape)
{
  std::vector<uint32_t> indices;
  for (uint32_t y = 0; y + 1 < shape.side; ++y)
    for (uint32_t x = 0; x + 1 < shape.side; ++x)
    {
      const uint32_t corner = y * shape.side + x;
      for (uint32_t index : {corner, corner + 1, corner + shape.side, corner + 1, corner + shape.side + 1,
                             corner + shape.side})
        indices.push_back(index + shape.indexShift);
    }
  std::string bytes = formatName(shape.indexFormat.c_str());
  const uint32_t written = shape.indexCount < 0 ? static_cast<uint32_t>(indices.size())
                                                : static_cast<uint32_t>(shape.indexCount);
  appendPod(bytes, &written, 4);
  const uint32_t unused = 0;
  appendPod(bytes, &unused, 4);
  const bool wide = shape.indexFormat == "list32";
  for (uint32_t index : indices)
  {
    if (wide)
      appendPod(bytes, &index, 4);
    else
    {
      const uint16_t narrow = static_cast<uint16_t>(index);
      appendPod(bytes, &narrow, 2);
    }
  }
  return bytes;
}

std::string modelOf(const std::vector<SetShape>& sets)
{
  std::vector<std::pair<std::string, BinaryPtr>> entries;
  for (const SetShape& set : sets)
  {
    if (set.vertices)
      entries.emplace_back(set.name + ".vertices", blockOf(vertexSection(set)));
    if (set.indices)
      entries.emplace_back(set.name + ".indices", blockOf(indexSection(set)));
  }
  const BinaryPtr container = writeBinSectionContainer(entries);
  return container ? std::string(container->data(), container->len()) : std::string();
}

uint32_t pickBelow(std::mt19937& random, uint32_t count)
{
  return std::uniform_int_distribution<uint32_t>(0, count - 1)(random);
}

// `count` sound render sets named <prefix>0, <prefix>1, ...: grids of 2 to 1 + `sides` vertices a
// side, with 16- or 32-bit indices.
std::vector<SetShape> soundSets(std::mt19937& random, uint32_t count, const std::string& prefix, uint32_t sides)
{
  std::vector<SetShape> sets(count);
  for (size_t i = 0; i < sets.size(); ++i)
  {
    sets[i].name = prefix + std::to_string(i);
    sets[i].side = 2 + pickBelow(random, sides);
    sets[i].indexFormat = pickBelow(random, 2) == 0 ? "list" : "list32";
  }
  return sets;
}

// A model of two to four render sets, one of them with a fault of the kind a broken exporter or a
// damaged disk leaves.
std::string faultyModel(std::mt19937& random)
{
  const auto pick = [&random](uint32_t count) { return pickBelow(random, count); };
  std::vector<SetShape> sets = soundSets(random, 2 + pick(3), "set", 6);
  SetShape& bad = sets[pick(static_cast<uint32_t>(sets.size()))];
  switch (pick(12))
  {
  case 0: bad.indexCount = 0; break;
  case 1: bad.vertexCount = 0; break;
  case 2: bad.indexCount = int64_t{pick(40)} + 1; break;
  case 3: bad.vertexCount = int64_t{pick(70)} + 1; break;
  case 4: bad.indexShift = 1 + pick(100); break;
  case 5: bad.vertices = false; break;
  case 6: bad.indices = false; break;
  case 7: bad.normalLength = pick(2) == 0 ? 0.0f : 3.0f; break;
  case 8: bad.vertexFormat = pick(2) == 0 ? "xyznuvq" : ""; break;
  case 9: bad.indexFormat = pick(2) == 0 ? "strip" : ""; break;
  case 10: bad.name = sets[0].name; break;
  default: bad.indexCount = 0xFFFFFFF0u + pick(16); break;
  }
  return modelOf(sets);
}

// A sound model with its container bytes damaged: bytes flipped, a word overwritten, or cut short.
std::string damagedModel(std::mt19937& random)
{
  const auto pick = [&random](uint32_t count) { return pickBelow(random, count); };
  std::vector<SetShape> sets = soundSets(random, 1 + pick(3), "part", 4);
  std::string bytes = modelOf(sets);
  const uint32_t size = static_cast<uint32_t>(bytes.size());
  switch (pick(3))
  {
  case 0:
    for (uint32_t n = 1 + pick(4); n > 0; --n)
      bytes[pick(size)] ^= static_cast<char>(1u << pick(8));
    break;
  case 1:
  {
    const uint32_t words[] = {0u, 1u, 3u, 0xFFFFu, 0x7FFFFFFFu, 0xFFFFFFFFu, pick(1000)};
    const uint32_t word = words[pick(7)];
    std::memcpy(bytes.data() + (pick(size - 3) & ~3u), &word, 4);
    break;
  }
  default: bytes.resize(pick(size)); break;
  }
  return bytes;
}
} // namespace

class Mutation : public VertexmillTool
{
protected:
  // The inspector reads formats from the registry; other suites of this program start it too.
  static void SetUpTestSuite() { Moo::PrimitiveVertexFormat::init(0); }
  static void TearDownTestSuite() { Moo::PrimitiveVertexFormat::fini(); }
};

TEST_F(Mutation, EveryDamagedModelConvertsSoundOrFailsByName)
{
  constexpr int kModels = 300;
  // Another seed explores further: VERTEXMILL_MUTATION_SEED=<number>.
  const char* seedText = std::getenv("VERTEXMILL_MUTATION_SEED");
  const unsigned seed = seedText != nullptr ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10)) : 20261125u;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<std::string> names;
  for (int i = 0; i < kModels; ++i)
  {
    const std::string name = "m" + std::to_string(i);
    writeFile(path("tree/" + name + ".primitives"), i % 2 == 0 ? faultyModel(random) : damagedModel(random));
    names.push_back(name);
  }
  fs::create_directories(path("out"));
  const RunResult result = run({"--keep-going", "--jobs", "2", "--tree", str("tree"), str("out")});
  ASSERT_TRUE(result.status == 0 || result.status == 3) << result.status << "\n" << result.err;

  int sound = 0, keptOnPurpose = 0, failed = 0;
  for (const std::string& name : names)
  {
    const fs::path output = path("out/tree/" + name + ".geometry");
    if (!fs::exists(output))
    {
      ++failed;
      EXPECT_NE(result.err.find("  " + str("tree/" + name + ".primitives") + ": "), std::string::npos)
        << name << " has no output and the summary does not name it";
      continue;
    }
    geometry_inspect::GeometryInspection inspection;
    if (inspection.load(u8(output)))
      inspection.validate();
    std::string errors;
    bool allKept = true;
    for (const geometry_inspect::Issue& issue : inspection.issues().items())
      if (issue.severity == geometry_inspect::Severity::Error)
      {
        errors += issue.text + "\n";
        allKept = allKept && isKeptOnPurpose(issue.text);
      }
    if (errors.empty())
      ++sound;
    else if (allKept)
      ++keptOnPurpose;
    else
      ADD_FAILURE() << name << " was written but the inspector refuses it:\n" << errors;
  }
  // The mix stays meaningful: each outcome is common.
  EXPECT_GT(sound, kModels / 10);
  EXPECT_GT(failed, kModels / 10);
  EXPECT_GT(keptOnPurpose, 0);
  // Nothing but whole outputs is left in the output tree.
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path("out")))
    EXPECT_TRUE(entry.is_directory() || entry.path().extension() == ".geometry") << u8(entry.path());
  RecordProperty("sound", sound);
  RecordProperty("kept_on_purpose", keptOnPurpose);
  RecordProperty("failed", failed);
}

} // namespace vertexmill_test
