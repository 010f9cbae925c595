#include "run_report/compare.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace run_report
{
using nlohmann::json;

namespace
{
// The model figures compared, from each model's "totals".
constexpr const char* kFigures[] = {"triangles", "vertices", "outputBytes", "storedBytes", "acmr"};

std::string sourceOf(const json& model)
{
  const auto found = model.find("source");
  return found != model.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool failed(const json& model)
{
  return model.value("status", std::string()) == "failed";
}

// The folder every source of the report lies in ("" when they share none), up to its last
// separator.
std::string commonFolder(const json& models)
{
  bool first = true;
  std::string common;
  for (const json& model : models)
  {
    const std::string source = sourceOf(model);
    if (first)
    {
      common = source.substr(0, source.find_last_of("/\\") + 1);
      first = false;
      continue;
    }
    size_t same = 0;
    while (same < common.size() && same < source.size() && common[same] == source[same])
      ++same;
    common.resize(same);
    common.resize(common.find_last_of("/\\") + 1); // npos + 1 == 0: nothing in common
  }
  return common;
}

// The models of a report by their key: the source path, less `folder`.
std::map<std::string, const json*> byKey(const json& models, const std::string& folder)
{
  std::map<std::string, const json*> keyed;
  for (const json& model : models)
  {
    if (!model.is_object())
      continue;
    const std::string source = sourceOf(model);
    keyed.emplace(source.substr(source.compare(0, folder.size(), folder) == 0 ? folder.size() : 0), &model);
  }
  return keyed;
}

const json& modelsOf(const json& report)
{
  static const json kNone = json::array();
  const auto found = report.is_object() ? report.find("models") : report.end();
  return report.is_object() && found != report.end() && found->is_array() ? *found : kNone;
}

// The figures that changed by more than `threshold`, and the size of the largest change.
json changedFigures(const json& newer, const json& older, double threshold, double& size)
{
  json figures = json::array();
  size = 0.0;
  const json newTotals = newer.value("totals", json::object());
  const json oldTotals = older.value("totals", json::object());
  for (const char* name : kFigures)
  {
    const auto after = newTotals.find(name);
    const auto before = oldTotals.find(name);
    if (after == newTotals.end() || before == oldTotals.end() || !after->is_number() || !before->is_number())
      continue;
    const double a = after->get<double>();
    const double b = before->get<double>();
    if (!std::isfinite(a) || !std::isfinite(b) || a == b)
      continue;
    // From nothing to something is a whole change.
    const double relative = b != 0.0 ? (a - b) / std::abs(b) : 1.0;
    if (std::abs(relative) <= threshold)
      continue;
    figures.push_back({{"name", name}, {"before", *before}, {"after", *after}, {"relative", relative}});
    size = std::max(size, std::abs(relative));
  }
  return figures;
}
} // namespace

json compareReports(const json& newer, const json& older, double threshold)
{
  const json& newModels = modelsOf(newer);
  const json& oldModels = modelsOf(older);
  std::string newFolder = commonFolder(newModels);
  std::string oldFolder = commonFolder(oldModels);
  // The same tree read from the same place: whole paths match, whatever the folders hold now.
  if (newFolder == oldFolder)
    newFolder.clear(), oldFolder.clear();
  const std::map<std::string, const json*> newByKey = byKey(newModels, newFolder);
  const std::map<std::string, const json*> oldByKey = byKey(oldModels, oldFolder);

  struct Change
  {
    json entry;
    bool failedSince = false;
    double size = 0.0;
    std::string source;
  };
  std::vector<Change> changes;
  std::map<std::string, uint64_t> counts{{"added", 0},   {"removed", 0}, {"failedSince", 0},
                                         {"fixed", 0},   {"changed", 0}, {"unchanged", 0}};
  const auto add = [&changes](const json& model, const char* change, double size, json figures = json::array()) {
    Change item;
    item.source = sourceOf(model);
    item.size = size;
    item.failedSince = std::string_view(change) == "failed-since";
    item.entry = {{"source", item.source}, {"change", change}, {"size", size}, {"figures", std::move(figures)}};
    if (item.failedSince)
      item.entry["messages"] = model.value("errors", json::array());
    changes.push_back(std::move(item));
  };

  for (const auto& [key, model] : newByKey)
  {
    const auto old = oldByKey.find(key);
    if (old == oldByKey.end())
    {
      add(*model, "added", 1.0);
      ++counts["added"];
    }
    else if (failed(*model) && !failed(*old->second))
    {
      add(*model, "failed-since", 1.0);
      ++counts["failedSince"];
    }
    else if (!failed(*model) && failed(*old->second))
    {
      add(*model, "fixed", 1.0);
      ++counts["fixed"];
    }
    else
    {
      double size = 0.0;
      json figures = changedFigures(*model, *old->second, threshold, size);
      if (figures.empty())
      {
        ++counts["unchanged"];
        continue;
      }
      add(*model, "changed", size, std::move(figures));
      ++counts["changed"];
    }
  }
  for (const auto& [key, model] : oldByKey)
    if (!newByKey.count(key))
    {
      add(*model, "removed", 1.0);
      ++counts["removed"];
    }

  std::stable_sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) {
    if (a.failedSince != b.failedSince)
      return a.failedSince;
    if (a.size != b.size)
      return a.size > b.size;
    return a.source < b.source;
  });
  json models = json::array();
  for (Change& change : changes)
    models.push_back(std::move(change.entry));
  return {{"threshold", threshold}, {"counts", counts}, {"models", std::move(models)}};
}

} // namespace run_report
