#include "run_report/run_report.hpp"

#include <algorithm>
#include <cstdint>
#include <map>

namespace run_report
{
using nlohmann::ordered_json;

namespace
{
constexpr const char* kSchema = "vertexmill-report";
constexpr const char* kSummed[] = {"vertices", "triangles", "rawBytes", "storedBytes", "outputBytes"};

uint64_t count(const ordered_json& object, const char* key)
{
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_integer())
    return 0;
  return found->is_number_unsigned() ? found->get<uint64_t>() : uint64_t(std::max<int64_t>(found->get<int64_t>(), 0));
}
} // namespace

ordered_json totalsOf(const ordered_json& models)
{
  uint64_t byStatus[4] = {0, 0, 0, 0};
  uint64_t sums[std::size(kSummed)] = {};
  double seconds = 0.0;
  const char* const statuses[] = {"converted", "converted-with-errors", "failed", "up-to-date"};
  for (const ordered_json& model : models)
  {
    const std::string status = model.value("status", std::string());
    for (size_t s = 0; s < std::size(statuses); ++s)
      byStatus[s] += status == statuses[s];
    const ordered_json totals = model.value("totals", ordered_json::object());
    for (size_t k = 0; k < std::size(kSummed); ++k)
      sums[k] += count(totals, kSummed[k]);
    seconds += model.value("seconds", 0.0);
  }
  ordered_json totals{{"models", models.size()},     {"converted", byStatus[0]}, {"convertedWithErrors", byStatus[1]},
                      {"failed", byStatus[2]},         {"upToDate", byStatus[3]}};
  for (size_t k = 0; k < std::size(kSummed); ++k)
    totals[kSummed[k]] = sums[k];
  totals["seconds"] = seconds;
  return totals;
}

std::optional<ordered_json> mergeParts(const std::vector<Part>& parts, std::string& problem)
{
  if (parts.empty())
  {
    problem = "no report parts were given";
    return std::nullopt;
  }
  const auto refuse = [&problem](std::string text) {
    problem = std::move(text);
    return std::nullopt;
  };
  std::map<uint64_t, const Part*> byShard;
  uint64_t shardCount = 0;
  const Part& first = parts.front();
  for (const Part& part : parts)
  {
    const ordered_json& document = part.document;
    if (!document.is_object() || document.value("schema", std::string()) != kSchema ||
        !document.contains("models") || !document["models"].is_array())
      return refuse("'" + part.path + "' is not a vertexmill report");
    const ordered_json shard = document.value("shard", ordered_json());
    const uint64_t index = shard.is_object() ? count(shard, "index") : 0;
    const uint64_t total = shard.is_object() ? count(shard, "count") : 0;
    if (index == 0 || total == 0 || index > total)
      return refuse("'" + part.path + "' is not the report of a shard (it was not written with --shard K/N)");
    if (document.value("schemaVersion", ordered_json()) != first.document.value("schemaVersion", ordered_json()) ||
        document.value("tool", ordered_json()) != first.document.value("tool", ordered_json()))
      return refuse("'" + part.path + "' and '" + first.path + "' come from different tool versions");
    if (document.value("run", ordered_json()) != first.document.value("run", ordered_json()) ||
        (shardCount != 0 && total != shardCount))
      return refuse("'" + part.path + "' and '" + first.path + "' are parts of different runs");
    shardCount = total;
    const auto [at, added] = byShard.emplace(index, &part);
    if (!added)
      return refuse("shard " + std::to_string(index) + "/" + std::to_string(total) + " is given twice: '" +
                    at->second->path + "' and '" + part.path + "'");
  }
  for (uint64_t index = 1; index <= shardCount; ++index)
    if (!byShard.count(index))
      return refuse("shard " + std::to_string(index) + "/" + std::to_string(shardCount) + " is missing");

  std::vector<std::pair<std::string, const ordered_json*>> models;
  std::map<std::string, const Part*> owner;
  for (const auto& [index, part] : byShard)
    for (const ordered_json& model : part->document["models"])
    {
      const std::string source = model.value("source", std::string());
      const auto [at, added] = owner.emplace(source, part);
      if (!added)
        return refuse("model '" + source + "' is in two parts: '" + at->second->path + "' and '" + part->path + "'");
      models.emplace_back(source, &model);
    }
  std::stable_sort(models.begin(), models.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

  ordered_json list = ordered_json::array();
  for (const auto& model : models)
    list.push_back(*model.second);
  ordered_json merged{{"schema", kSchema},
                      {"schemaVersion", first.document["schemaVersion"]},
                      {"tool", first.document["tool"]}};
  if (first.document.contains("run"))
    merged["run"] = first.document["run"];
  ordered_json totals = totalsOf(list);
  merged["models"] = std::move(list);
  merged["totals"] = std::move(totals);
  return merged;
}

} // namespace run_report
