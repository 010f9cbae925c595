#pragma once
// Where a model's generated levels of detail go and which models get them. The engine loads a
// model's lower levels from lods/<MODEL_NAME>_lod<n>.geometry beside its .geometry file; a model
// named like a level (MODEL_NAME_lod<n>, MODEL_NAME_Full) or lying in a lods directory is one
// already, and one whose artist made its levels keeps them.

#include "geometry_compiler/geometry_compiler.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace vertexmill
{

struct LevelReport;

// Why a model gets no generated levels: "" (it gets them), "not-a-main-model" or "hand-made".
std::string levelsRefusal(const std::filesystem::path& source);

// <output's directory>/lods/<output's stem>_lod<number>.geometry
std::filesystem::path levelPath(const std::filesystem::path& output, unsigned number);

// Writes every level whole beside `output` and describes it in `written` (in order). False, after
// an ERROR naming the file, when one cannot be written; the levels before it stay written.
[[nodiscard]] bool writeLevels(const std::filesystem::path& output, const std::vector<GeometryCompiler::Level>& levels,
                               std::vector<LevelReport>& written, std::string& reason);

// Level files past the chain just written (`made` levels) that an earlier run left: named in a
// WARNING, since the engine would load them with the new ones. They are not removed: the tool
// cannot tell them from files an artist put there.
void warnAboutLevelsPast(const std::filesystem::path& output, unsigned made);

} // namespace vertexmill
