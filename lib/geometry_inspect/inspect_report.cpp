#include "geometry_inspect/inspect_report.hpp"

#include "moo/half_float.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace geometry_inspect
{

const char* const kJsonSchema =
  "JSON output (--json) is one object:\n"
  "  file, type (\"geometry\" or \"primitives\"), fileSize (bytes), errors and warnings (arrays of\n"
  "  texts); with --validate also sound (bool).\n"
  "  geometry: loaded (bool);\n"
  "    vertexBuffers: [{index, format, stride, skinned, bumped, encoded, storedSize, decoded,\n"
  "      decodedSize, vertexCount, ratio}]\n"
  "    indexBuffers: [{index, format (\"list\" or \"list32\"), primitiveType, stride, encoded,\n"
  "      storedSize, decoded, decodedSize, indexCount, ratio}]\n"
  "    vertexMappings, indexMappings: [{index, id (\"0x%08x\"), buffer, itemsOffset, itemsCount,\n"
  "      packedTexelDensity, texelDensity}]\n"
  "    collisionModels, armorModels: [{index, name, size}]\n"
  "    with --stats: renderSets: [{index, vertexId, indexId, vertexCount, triangleCount, usable,\n"
  "      problem, acmr, atvr, overdraw, overfetch}]\n"
  "    with --export-obj: export: {path, objects, vertices, triangles}\n"
  "  primitives: sections: [{index, name, id, size, kind (\"vertices\", \"indices\" or \"other\"),\n"
  "    and where the header was read: format, count; for vertices also processed, gpuFormat}]\n"
  "  ratio is storedSize / decodedSize; a value that is not known is null.\n";

namespace
{

const char* indexFormatName(uint16_t primitiveType)
{
  return primitiveType == 0 ? "list" : "list32";
}

std::string yesNo(bool value)
{
  return value ? "yes" : "no";
}

// "encoded 1200 B -> 4000 B (ratio 0.300)", "raw 4000 B" or "encoded 1200 B, not decodable".
std::string sizeText(bool encoded, uint32_t stored, bool decoded, uint64_t decodedSize)
{
  if (!encoded)
    return fmt::format("raw {} B", stored);
  if (!decoded)
    return fmt::format("encoded {} B, not decodable", stored);
  return fmt::format("encoded {} B -> {} B (ratio {:.3f})", stored, decodedSize,
                     decodedSize == 0 ? 0.0 : double(stored) / double(decodedSize));
}

nlohmann::json ratioJson(uint32_t stored, bool decoded, uint64_t decodedSize)
{
  if (!decoded || decodedSize == 0)
    return nullptr;
  return double(stored) / double(decodedSize);
}

void writeMappings(std::ostream& out, const char* title, const std::vector<Moo::MappingPrototype>& mappings,
                   const GeometryInspection& inspection)
{
  out << fmt::format("{} ({}):\n", title, mappings.size());
  for (size_t i = 0; i < mappings.size(); ++i)
  {
    const Moo::MappingPrototype& m = mappings[i];
    out << fmt::format("  #{} id {} buffer {} items {}+{} texel density {}\n", i, inspection.idLabel(m.mappingId),
                       m.mergedBufferIndex, m.itemsOffset, m.itemsCount, Moo::halfToFloat(m.packedTexelDensity));
  }
}

void writeModels(std::ostream& out, const char* title, const std::vector<Moo::GeometryData::ModelData>& models)
{
  out << fmt::format("{} ({}):\n", title, models.size());
  for (size_t i = 0; i < models.size(); ++i)
    out << fmt::format("  #{} '{}' {} B\n", i, models[i].name, models[i].data.size());
}

nlohmann::json mappingsJson(const std::vector<Moo::MappingPrototype>& mappings, const GeometryInspection& inspection)
{
  nlohmann::json list = nlohmann::json::array();
  for (size_t i = 0; i < mappings.size(); ++i)
  {
    const Moo::MappingPrototype& m = mappings[i];
    const float density = Moo::halfToFloat(m.packedTexelDensity);
    const std::string& name = inspection.sectionName(m.mappingId);
    list.push_back({{"index", i},
                    {"id", hexId(m.mappingId)},
                    {"name", name.empty() ? nlohmann::json(nullptr) : nlohmann::json(name)},
                    {"buffer", m.mergedBufferIndex},
                    {"itemsOffset", m.itemsOffset},
                    {"itemsCount", m.itemsCount},
                    {"packedTexelDensity", m.packedTexelDensity},
                    {"texelDensity", std::isfinite(density) ? nlohmann::json(density) : nlohmann::json(nullptr)}});
  }
  return list;
}

nlohmann::json modelsJson(const std::vector<Moo::GeometryData::ModelData>& models)
{
  nlohmann::json list = nlohmann::json::array();
  for (size_t i = 0; i < models.size(); ++i)
    list.push_back({{"index", i}, {"name", models[i].name}, {"size", models[i].data.size()}});
  return list;
}

const char* kindName(SectionInfo::Kind kind)
{
  switch (kind)
  {
  case SectionInfo::Kind::Vertices:
    return "vertices";
  case SectionInfo::Kind::Indices:
    return "indices";
  case SectionInfo::Kind::Other:
    break;
  }
  return "other";
}

} // namespace

void writeGeometrySummary(std::ostream& out, const GeometryInspection& inspection)
{
  const Moo::GeometryData& data = inspection.data();
  out << fmt::format("{}: geometry, {} B\n", inspection.path(), inspection.fileSize());

  out << fmt::format("vertex buffers ({}):\n", data.vertexBuffers().size());
  for (size_t i = 0; i < data.vertexBuffers().size(); ++i)
  {
    const Moo::GeometryData::VertexBuffer& buffer = data.vertexBuffers()[i];
    const DecodedVertexBuffer& decoded = inspection.vertexBuffers()[i];
    out << fmt::format("  #{} {} stride {} skinned {} bumped {}: ", i, buffer.formatName, buffer.strideInBytes,
                       yesNo(buffer.isSkinned), yesNo(buffer.isBumped));
    if (decoded.decoded)
      out << fmt::format("{} vertices, ", decoded.vertexCount);
    out << sizeText(buffer.encoded, buffer.sizeInBytes, decoded.decoded, decoded.vertices.size()) << '\n';
  }

  out << fmt::format("index buffers ({}):\n", data.indexBuffers().size());
  for (size_t i = 0; i < data.indexBuffers().size(); ++i)
  {
    const Moo::GeometryData::IndexBuffer& buffer = data.indexBuffers()[i];
    const DecodedIndexBuffer& decoded = inspection.indexBuffers()[i];
    out << fmt::format("  #{} {} ({}-bit): ", i, indexFormatName(buffer.primitiveType), buffer.strideInBytes * 8);
    if (decoded.decoded)
      out << fmt::format("{} indices, ", decoded.indices.size());
    out << sizeText(buffer.encoded, buffer.sizeInBytes, decoded.decoded,
                    uint64_t{decoded.indices.size()} * buffer.strideInBytes)
        << '\n';
  }

  writeMappings(out, "vertex mappings", data.verticesMapping(), inspection);
  writeMappings(out, "index mappings", data.indicesMapping(), inspection);
  writeModels(out, "collision models", data.collisionModels());
  writeModels(out, "armor models", data.armorModels());
}

void writeRenderSetStats(std::ostream& out, const GeometryInspection& inspection)
{
  if (!inspection.canPairRenderSets())
  {
    out << fmt::format("render sets: none ({} vertex mappings, {} index mappings cannot be paired)\n",
                       inspection.data().verticesMapping().size(), inspection.data().indicesMapping().size());
    return;
  }
  const std::vector<RenderSet> sets = inspection.renderSets();
  out << fmt::format("render sets ({}, paired by position):\n", sets.size());
  for (const RenderSet& set : sets)
  {
    out << fmt::format("  #{} vertices {} indices {}: {} vertices, {} triangles", set.index,
                       inspection.idLabel(set.vertices.mappingId), inspection.idLabel(set.indices.mappingId),
                       set.vertices.itemsCount,
                       set.indices.itemsCount / 3);
    if (const auto stats = analyzeRenderSet(inspection, set))
      out << fmt::format(", ACMR {:.3f} ATVR {:.3f} overdraw {:.3f} fetch {:.3f}\n", stats->acmr, stats->atvr,
                         stats->overdraw.value_or(0.0f), stats->overfetch);
    else
      out << ", no statistics: " << (set.usable ? "nothing to analyse" : set.problem) << '\n';
  }
}

void writePrimitivesListing(std::ostream& out, const PrimitivesListing& listing)
{
  const std::vector<SectionInfo>& sections = listing.sections();
  out << fmt::format("{}: primitives, {} B, {} sections\n", listing.path(), listing.fileSize(), sections.size());
  size_t nameWidth = 4;
  for (const SectionInfo& section : sections)
    nameWidth = std::max(nameWidth, section.name.size());
  out << fmt::format("  {:<{}} {:>10} {:<10} content\n", "name", nameWidth, "bytes", "id");
  for (const SectionInfo& section : sections)
  {
    std::string content;
    if (section.kind == SectionInfo::Kind::Vertices && section.headerRead)
      content = fmt::format("vertices {} x{}{}{}", section.format, section.count,
                            section.gpuFormat.empty() ? " (unknown format)" : " -> " + section.gpuFormat,
                            section.processed ? " (already processed)" : "");
    else if (section.kind == SectionInfo::Kind::Indices && section.headerRead)
      content = fmt::format("indices {} x{}", section.format, section.count);
    else if (section.kind != SectionInfo::Kind::Other)
      content = fmt::format("{} (unreadable header)", kindName(section.kind));
    out << fmt::format("  {:<{}} {:>10} {:<10} {}\n", section.name, nameWidth, section.size, hexId(section.id), content);
  }
}

void writeIssues(std::ostream& out, const Issues& issues)
{
  for (const Issue& issue : issues.items())
    out << (issue.severity == Severity::Error ? "ERROR: " : "WARNING: ") << issue.text << '\n';
}

nlohmann::json geometryToJson(const GeometryInspection& inspection, bool withStats)
{
  const Moo::GeometryData& data = inspection.data();
  nlohmann::json document = {
    {"file", inspection.path()},
    {"type", "geometry"},
    {"fileSize", inspection.fileSize()},
    {"loaded", inspection.isLoaded()},
  };

  nlohmann::json vertexBuffers = nlohmann::json::array();
  for (size_t i = 0; i < data.vertexBuffers().size(); ++i)
  {
    const Moo::GeometryData::VertexBuffer& buffer = data.vertexBuffers()[i];
    const DecodedVertexBuffer& decoded = inspection.vertexBuffers()[i];
    vertexBuffers.push_back({
      {"index", i},
      {"format", buffer.formatName},
      {"stride", buffer.strideInBytes},
      {"skinned", buffer.isSkinned},
      {"bumped", buffer.isBumped},
      {"encoded", buffer.encoded},
      {"storedSize", buffer.sizeInBytes},
      {"decoded", decoded.decoded},
      {"decodedSize", decoded.decoded ? nlohmann::json(decoded.vertices.size()) : nlohmann::json(nullptr)},
      {"vertexCount", decoded.decoded ? nlohmann::json(decoded.vertexCount) : nlohmann::json(nullptr)},
      {"ratio", ratioJson(buffer.sizeInBytes, decoded.decoded, decoded.vertices.size())},
    });
  }
  document["vertexBuffers"] = std::move(vertexBuffers);

  nlohmann::json indexBuffers = nlohmann::json::array();
  for (size_t i = 0; i < data.indexBuffers().size(); ++i)
  {
    const Moo::GeometryData::IndexBuffer& buffer = data.indexBuffers()[i];
    const DecodedIndexBuffer& decoded = inspection.indexBuffers()[i];
    const uint64_t decodedSize = uint64_t{decoded.indices.size()} * buffer.strideInBytes;
    indexBuffers.push_back({
      {"index", i},
      {"format", indexFormatName(buffer.primitiveType)},
      {"primitiveType", buffer.primitiveType},
      {"stride", buffer.strideInBytes},
      {"encoded", buffer.encoded},
      {"storedSize", buffer.sizeInBytes},
      {"decoded", decoded.decoded},
      {"decodedSize", decoded.decoded ? nlohmann::json(decodedSize) : nlohmann::json(nullptr)},
      {"indexCount", decoded.decoded ? nlohmann::json(decoded.indices.size()) : nlohmann::json(nullptr)},
      {"ratio", ratioJson(buffer.sizeInBytes, decoded.decoded, decodedSize)},
    });
  }
  document["indexBuffers"] = std::move(indexBuffers);
  document["vertexMappings"] = mappingsJson(data.verticesMapping(), inspection);
  document["indexMappings"] = mappingsJson(data.indicesMapping(), inspection);
  document["collisionModels"] = modelsJson(data.collisionModels());
  document["armorModels"] = modelsJson(data.armorModels());

  if (withStats)
  {
    nlohmann::json sets = nlohmann::json::array();
    for (const RenderSet& set : inspection.renderSets())
    {
      const auto stats = analyzeRenderSet(inspection, set);
      const auto figure = [&](float value) { return stats ? nlohmann::json(value) : nlohmann::json(nullptr); };
      sets.push_back({
        {"index", set.index},
        {"vertexId", hexId(set.vertices.mappingId)},
        {"indexId", hexId(set.indices.mappingId)},
        {"vertexCount", set.vertices.itemsCount},
        {"triangleCount", set.indices.itemsCount / 3},
        {"usable", set.usable},
        {"problem", set.usable ? nlohmann::json(nullptr) : nlohmann::json(set.problem)},
        {"acmr", figure(stats ? stats->acmr : 0.0f)},
        {"atvr", figure(stats ? stats->atvr : 0.0f)},
        {"overdraw", figure(stats ? stats->overdraw.value_or(0.0f) : 0.0f)},
        {"overfetch", figure(stats ? stats->overfetch : 0.0f)},
      });
    }
    document["renderSets"] = std::move(sets);
  }
  return document;
}

nlohmann::json primitivesToJson(const PrimitivesListing& listing)
{
  nlohmann::json sections = nlohmann::json::array();
  for (size_t i = 0; i < listing.sections().size(); ++i)
  {
    const SectionInfo& section = listing.sections()[i];
    nlohmann::json entry = {
      {"index", i},
      // Names are raw bytes; the document is dumped with invalid UTF-8 replaced.
      {"name", section.name},
      {"id", hexId(section.id)},
      {"size", section.size},
      {"kind", kindName(section.kind)},
    };
    if (section.headerRead)
    {
      entry["format"] = section.format;
      entry["count"] = section.count;
      if (section.kind == SectionInfo::Kind::Vertices)
      {
        entry["processed"] = section.processed;
        entry["gpuFormat"] = section.gpuFormat.empty() ? nlohmann::json(nullptr) : nlohmann::json(section.gpuFormat);
      }
    }
    sections.push_back(std::move(entry));
  }
  return {
    {"file", listing.path()},
    {"type", "primitives"},
    {"fileSize", listing.fileSize()},
    {"sections", std::move(sections)},
  };
}

void addIssues(nlohmann::json& document, const Issues& issues)
{
  nlohmann::json errors = nlohmann::json::array();
  nlohmann::json warnings = nlohmann::json::array();
  for (const Issue& issue : issues.items())
    (issue.severity == Severity::Error ? errors : warnings).push_back(issue.text);
  document["errors"] = std::move(errors);
  document["warnings"] = std::move(warnings);
}

} // namespace geometry_inspect
