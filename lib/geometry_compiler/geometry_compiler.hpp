#pragma once
// Turns one model's .primitives file (plus its collision and armor companions) into one
// .geometry file: sections are classified, vertices converted to their GPU format, verified and
// merged per format, every render set optimised, the buffers encoded, and the whole written as
// one packed prototype.

#include "geometry_compiler/compile_options.hpp"
#include "geometry_compiler/compile_statistics.hpp"
#include "geometry_compiler/element_columns.hpp"
#include "geometry_compiler/merged_geometry.hpp"
#include "geometry_compiler/section_source.hpp"
#include "geometry_compiler/string_pool.hpp"
#include "moo/index_format.hpp"
#include "resmgr/binary_block.hpp"
#include "resmgr/bin_section.hpp"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

class Verifier;

namespace Moo
{
class VertexFormat;
class PrimitiveVertexFormat;
struct MergedGeometryPrototype;
} // namespace Moo

namespace red::types
{
struct String;
}

class GeometryCompiler
{
public:
  // What to convert; texts in UTF-8.
  struct Request
  {
    std::string primitivesPath;  // must not be empty
    std::string collisionPath;   // companion files, or empty
    std::string armorPath;
    std::string armorVisualPath;
    std::string modelName;       // used only in companion-loading messages
  };

  // A model held in memory: the bytes of its .primitives file and of each companion that it has,
  // with the names the messages give them (the paths they were read from).
  struct ModelBytes
  {
    struct Companion
    {
      std::string path; // empty: the model has none
      BinaryPtr bytes;
    };
    std::string primitivesPath;
    BinaryPtr primitives;
    Companion collision;
    Companion armor;
    Companion armorVisual;
    std::string modelName; // used only in companion-loading messages

    // What compile() would be asked for these files.
    Request request() const
    {
      return Request{primitivesPath, collision.path, armor.path, armorVisual.path, modelName};
    }
  };

  // A .primitives file in memory: where it came from and its sections in file order, each
  // borrowing the one block that holds the file.
  struct BinFile
  {
    std::string resourceName;
    std::vector<std::pair<std::string, BinaryPtr>> children;
  };

  GeometryCompiler();
  ~GeometryCompiler();
  GeometryCompiler(const GeometryCompiler&) = delete;
  GeometryCompiler& operator=(const GeometryCompiler&) = delete;

  // Worker threads for optimising render sets and encoding buffers (1: all on the calling
  // thread). The output does not depend on it.
  void setJobs(unsigned jobs) { m_jobs = jobs == 0 ? 1 : jobs; }

  // Where the next compile records what it did (null: nothing is recorded). Not owned; must
  // outlive the compile.
  void setStatistics(CompileStatistics* statistics) { m_statistics = statistics; }
  // With statistics: whether the render sets' overdraw is measured too (costly: about a third of
  // the optimisation again). Off by default.
  void setOverdrawAnalysis(bool measure) { m_overdraw = measure; }

  // Asked once the file is packed and about to be written: false keeps it from being written (the
  // compile then fails, and whoever said no reports why). Empty: always written.
  void setWriteApproval(std::function<bool()> approve) { m_approveWrite = std::move(approve); }

  // The whole conversion: reads the request's files and writes outputPath whole or not at all.
  // Returns false (after logging why) when no file was written.
  [[nodiscard]] bool compile(const Request& request, const std::string& outputPath, const CompileOptions& options);
  // The conversion of a model held in memory: the same steps, messages and bytes as compile() of
  // the same files, but nothing is read or written. Returns the bytes of the .geometry file, or null
  // (after logging why) when the compile failed; `outputPath` only names the result in messages.
  [[nodiscard]] BinaryPtr compileBytes(const ModelBytes& model, const std::string& outputPath,
                                       const CompileOptions& options);
  // The same with the three switches given one by one (encode, optimize, verify) and the other
  // options at their defaults.
  [[nodiscard]] bool compile(const Request& request, const std::string& outputPath, bool encode, bool optimize,
                             bool verify);

  // One simplified level of the model that the last compile made beside the main file.
  struct Level
  {
    unsigned number = 0; // 1 for the first level after the main model
    BinaryPtr bytes;     // the whole .geometry file
    uint64_t triangles = 0;
    uint64_t vertices = 0;
    float errorAbsolute = 0.0f; // the largest deviation from the main model, in model units
    float errorRelative = 0.0f; // the same, relative to the model's size
    float ratio = 0.0f;         // its triangles over those of the level before it (the main model for the first)
    CompileStatistics statistics; // filled only when the compile gathers statistics
  };
  // The levels of detail the last compile made (its options asked for some, and it succeeded), in
  // order. The chain ends early at a level that would remove less than a tenth of the triangles of
  // the level before it; requestedLevels() tells how many were asked for.
  const std::vector<Level>& levels() const { return m_levels; }
  // The bytes of the file the last compile wrote, as it wrote them; null when it wrote none.
  const BinaryPtr& written() const { return m_written; }
  unsigned requestedLevels() const { return m_settings.lods.levels; }

  // The system's own words for the file operation that failed in the last compile ("Permission
  // denied", "No space left on device"), empty when none did. Its messages keep their fixed
  // wording; callers with room for it (a report, a summary) show this beside them.
  const std::string& systemReason() const { return m_systemReason; }

  // Empties all working state so that the compiler can be reused.
  void clear();

  // readFile, then packLOD. False when either failed (both report).
  [[nodiscard]] bool loadPrimitives(const Request& request);

  // Reads a whole .primitives file and splits it into sections. False, with an ERROR message
  // naming the file, when it cannot be opened or read, is empty, or is not a valid container.
  [[nodiscard]] bool readFile(const std::string& path, BinFile& binFile);

  // Dispatches every section by the kind after the last dot of its name. False when a vertex or
  // index section could not be packed, or a linked pair refers to vertices it does not have.
  [[nodiscard]] bool packLOD(const BinFile& binFile);

  // Converts one vertex section to its GPU format and merges it. False on a malformed section or
  // an unknown or unconvertible format (reported).
  [[nodiscard]] bool packVertices(const std::string& sectionName, std::span<const std::byte> section);

  // Merges one index section unchanged. False on a malformed section (reported).
  [[nodiscard]] bool packIndices(const std::string& sectionName, std::span<const std::byte> section);

  // Links a vertex section with its index section once both are merged: checks that every index
  // is below the section's vertex count and computes the pair's texel density. Nothing happens
  // when either is missing. False (reported, naming the file and both sections) on an index out
  // of range.
  [[nodiscard]] bool updateCorrespondingBuffers(const std::string& verticesName, const std::string& indicesName);

  // Reads a companion model file whole and keeps it as a data section named after the file.
  // kind: "collision", "armor" or "armorvisual". False when the file is unreadable or empty.
  [[nodiscard]] bool loadCompanionModel(const std::string& path, const std::string& modelName, const char* kind);

  // Optimises, fills the prototype, packs it and writes the file. False when nothing was written.
  [[nodiscard]] bool save(const std::string& resourcePath);

  // Runs the converted vertices of one section through the verifier and reports what it found.
  void verifyVertices(const std::string& sectionName, const void* vertices, size_t size,
                      const Moo::VertexFormat& format);
  // Reports what the verifier found in one section.
  void reportVerifier(const std::string& sectionName, const Verifier& verifier);

  // Packs the filled prototype into one block; null (reported) on failure.
  BinaryPtr packData(const Moo::MergedGeometryPrototype& prototype);

  // Writes the block to resourcePath through a temporary file renamed over it (fileio), so the
  // path holds either the previous file or the whole new one. False (reported) on any failure.
  [[nodiscard]] bool writeToFile(const std::string& resourcePath, const BinaryPtr& block);

  // Inspection of the merged state (tests, reports).
  using MergedGeometry = GeometryCompilerDetail::MergedGeometry;
  const MergedGeometry& mergedGeometry() const { return m_mergedGeometry; }
  const std::vector<GeometryCompilerDetail::DataEntry>& vertexData() const { return m_mergedGeometry.vertices().data; }
  const std::vector<GeometryCompilerDetail::DataEntry>& indexData() const { return m_mergedGeometry.indices().data; }
  const std::vector<GeometryCompilerDetail::MappingEntry>& vertexMappings() const
  {
    return m_mergedGeometry.vertices().mappings;
  }
  const std::vector<GeometryCompilerDetail::MappingEntry>& indexMappings() const
  {
    return m_mergedGeometry.indices().mappings;
  }
  const std::vector<DataSectionPtr>& collisionModels() const { return m_collisionData; }
  const std::vector<DataSectionPtr>& armorModels() const { return m_armorData; }

private:
  struct SaveState;

  // One render set to optimise: a vertex range and the index range drawn from it.
  struct MeshTask
  {
    std::string name;
    std::string vertexSection;
    std::string indexSection;
    std::span<std::byte> vertices;
    uint16_t stride = 0;
    std::span<std::byte> indices;
    IndexFormat format = IndexFormat::LIST;
    float texelDensity = 0.0f;
    std::string vertexFormat; // of the merged buffer the vertices are in
  };

  // What every compile starts with: empty state and the options it runs with.
  void startCompile(const CompileOptions& options);
  // readFile after the read: splits the bytes of a whole file (reported as `path`) into sections.
  bool takeFile(const std::string& path, const BinaryPtr& block, BinFile& binFile);
  // compile after its checks: load, companions, save. With `model` the sources are taken from
  // memory and the packed file is handed to *packed instead of being written.
  bool compileModel(const Request& request, const std::string& outputPath, const ModelBytes* model = nullptr,
                    BinaryPtr* packed = nullptr);
  // The companion step over bytes already read: kept as a data section named after the file.
  // False (reported) when there are none.
  bool takeCompanionModel(const std::string& path, const std::string& modelName, const char* kind,
                          const BinaryPtr& bytes);

  // Pairs every index range with its vertex range. With `optimizing`, reports the ranges that
  // cannot be paired and records each index buffer's largest vertex count.
  std::vector<MeshTask> gatherMeshTasks(bool optimizing) { return gatherMeshTasks(optimizing, m_mergedGeometry); }
  // The same over another merged state; without `optimizing` nothing in it is changed.
  std::vector<MeshTask> gatherMeshTasks(bool optimizing, MergedGeometry& merged);
  // The render sets as the statistics show them; `before` holds their state before optimising.
  std::vector<CompileStatistics::RenderSet> describeRenderSets(
    const std::vector<MeshTask>& tasks, bool optimized, const std::vector<MeshDataOptimizer::MeshStatistics>* before);
  void updateTexelDensity(GeometryCompilerDetail::MappingEntry& vertices, GeometryCompilerDetail::MappingEntry& indices);
  // Reserves every merged buffer's final size from the section headers, so that no buffer moves
  // while sections are added. Headers it cannot read are left to the packing to report.
  void reserveMergedBuffers(GeometryCompilerDetail::SectionSource& sections);
  // packLOD over any source of sections.
  [[nodiscard]] bool packSections(GeometryCompilerDetail::SectionSource& sections);
  // Reports why a .primitives file could not be loaded, in the same words whether it was read whole
  // or section by section; `read` tells the cause of a failed read.
  void reportLoadFailure(const std::string& path, GeometryCompilerDetail::FileSections::Failure failure,
                         const fileio::ReadResult& read);
  // Converts `vertexCount` vertices from `source` into `destination` (in slices, on up to m_jobs
  // threads) and, when verifying, checks them as they are converted, keeping the decoded
  // positions and texture coordinates in `columns` when it is given. False when the formats
  // have no conversion.
  [[nodiscard]] bool convertAndVerify(std::span<std::byte> destination, std::span<const std::byte> source,
                                      const Moo::PrimitiveVertexFormat& format, uint32_t vertexCount,
                                      Verifier* verifier, GeometryCompilerDetail::PositionAndUVColumns* columns);

  void optimizeMesh();
  // The levels of detail from the merged state as it was before saving (`base`), each simplified
  // from it, saved to bytes, on up to m_jobs threads; `outputPath` names them in messages.
  void makeLevels(const MergedGeometry& base, const std::string& outputPath);
  // Makes the merged state `base` (the main model's, unchanged) with every render set simplified
  // to about `keep` of its triangles, no further than the options' largest error from where it was,
  // and without the vertices no triangle uses any more. Fills the level's triangle, vertex and
  // error figures; returns the triangles the render sets had before.
  uint64_t simplifyRenderSets(const MergedGeometry& base, float keep, Level& level);

  // Where a render set lies in the merged buffers, by position, so that it can be found again once
  // the buffers are encoded.
  struct StoredSet
  {
    size_t vertexBuffer = 0;
    size_t vertexOffset = 0;
    size_t vertexBytes = 0;
    size_t vertexCount = 0;
    uint16_t stride = 0;
    size_t indexBuffer = 0;
    size_t indexOffset = 0;
    size_t indexBytes = 0;
    IndexFormat format = IndexFormat::LIST;
  };
  // With statistics: where every described render set lies (empty when they cannot be paired).
  std::vector<StoredSet> locateStoredSets();
  // The figures of one render set from its stored indices (and, for overdraw, its vertices).
  MeshDataOptimizer::MeshStatistics analyzeStoredSet(const StoredSet& set, std::span<const std::byte> vertices,
                                                     std::span<const std::byte> indices) const;

  // With statistics and encoding: measures every render set's figures after optimisation on the
  // indices as the file holds them, decoded again (the codec may rotate a triangle's corners), so
  // that they agree with what a reader of the file measures. Each index buffer is measured on a
  // thread of its own as soon as encoding reports it done, while the rest is encoded and the file
  // written; finish() (or the destructor) waits for the last. Overdraw reads copies of the vertex
  // buffers taken before they were encoded.
  class StoredMeasurement
  {
  public:
    StoredMeasurement(GeometryCompiler& compiler, std::vector<StoredSet> sets);
    ~StoredMeasurement();
    StoredMeasurement(const StoredMeasurement&) = delete;
    StoredMeasurement& operator=(const StoredMeasurement&) = delete;

    // Index buffer `buffer` holds its encoding now. Safe from any thread.
    void indexBufferEncoded(size_t buffer);
    void finish();

  private:
    void run();
    void measure(size_t buffer);

    GeometryCompiler& m_compiler;
    std::vector<StoredSet> m_sets;
    std::vector<cstdmf::ByteVector> m_rawVertices;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<size_t> m_ready;
    bool m_finishing = false;
    std::thread m_thread;
  };
  bool saveArmor(SaveState& state, const std::string& resourcePath);
  void saveCollisionModels(SaveState& state);
  // Encodes every merged buffer in place, telling `measurement` of each index buffer encoded.
  // save() up to the packed block; `resourcePath` only names it in messages. Null when it failed
  // (reported).
  BinaryPtr saveToBlock(const std::string& resourcePath, std::optional<StoredMeasurement>& measurement);
  void encodeBuffers(SaveState& state, StoredMeasurement* measurement = nullptr);
  void saveVerticesData(SaveState& state);
  void saveVerticesMapping(SaveState& state);
  void saveIndicesData(SaveState& state);
  void saveIndicesMapping(SaveState& state);

  // Fills *m_statistics from what the compile met and the state it ended in.
  void gatherStatistics() const;

  CompileOptions m_settings;
  unsigned m_jobs = 1;
  bool m_overdraw = false;
  std::function<bool()> m_approveWrite;
  CompileStatistics* m_statistics = nullptr;
  std::string m_resourceName; // the .primitives file being compiled, for messages
  std::string m_systemReason;

  MergedGeometry m_mergedGeometry;
  // Decoded positions and texture coordinates of merged vertex sections whose index section has
  // not been merged yet, by section name; texel density takes them instead of decoding again.
  std::vector<std::pair<std::string, GeometryCompilerDetail::PositionAndUVColumns>> m_pendingColumns;
  std::vector<DataSectionPtr> m_collisionData;
  std::vector<DataSectionPtr> m_armorData;
  GeometryCompilerDetail::StringPool m_stringPool;

  // What the compile met on the way, kept for the statistics: sections, verifier counts and
  // companions are recorded always (cheap); render sets only when statistics are asked for,
  // because describing them means analysing every mesh.
  CompileStatistics m_progress;
  // The merged buffers' sizes before encoding; set once saving has filled the buffer records.
  std::optional<std::pair<std::vector<uint64_t>, std::vector<uint64_t>>> m_rawBufferSizes;
  std::vector<Level> m_levels;
  BinaryPtr m_written;
};
