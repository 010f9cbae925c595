#pragma once
// The run report's document as a whole: the totals made from its models' entries, and one report
// made from the parts of a run that --shard split between machines.
//
// A part knows its place: the report of a run with --shard K/N holds "shard" {"index": K,
// "count": N} and "run" (what the run was asked to do, the same on every machine of one run).

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace run_report
{

// The document's "totals" from its "models" entries: how many, by status, and the sums of their
// vertices, triangles, buffer bytes, output bytes and seconds.
[[nodiscard]] nlohmann::ordered_json totalsOf(const nlohmann::ordered_json& models);

// One part as read: where it came from (named in messages) and its document.
struct Part
{
  std::string path;
  nlohmann::ordered_json document;
};

// The one report of all the parts: their models in the order of their source paths (the same on
// every machine), the totals made again, and neither "shard" nor a part's own totals. Nothing,
// with `problem` naming the files, when a part is not a vertexmill report of this schema or has no
// shard, when the parts come from different runs or tool versions, when a shard is given twice or
// missing, or when a model is in two parts.
[[nodiscard]] std::optional<nlohmann::ordered_json> mergeParts(const std::vector<Part>& parts, std::string& problem);

} // namespace run_report
