#include "vertexmill/worker_request.hpp"

#include "cstdmf/path_utils.hpp"
#include "fw/string_utils.hpp"
#include "vertexmill/model_cache.hpp"
#include "vertexmill/model_job.hpp"
#include "vertexmill/tool_options.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>

namespace vertexmill
{
namespace
{
using nlohmann::json;

// Paths are bytes: one that is not UTF-8 (a Linux file name can be anything) travels as
// {"hex": "<its bytes>"}, which JSON strings cannot hold.
json textToJson(const std::string& text)
{
  if (FW::StringUtils::isValidUtf8(text))
    return text;
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : text)
  {
    hex += kDigits[static_cast<unsigned char>(c) >> 4];
    hex += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return json{{"hex", hex}};
}

bool textFromJson(const json& value, std::string& text)
{
  if (value.is_string())
  {
    text = value.get<std::string>();
    return true;
  }
  const auto hex = value.is_object() && value.size() == 1 ? value.find("hex") : value.end();
  if (hex == value.end() || !hex->is_string() || hex->get_ref<const std::string&>().size() % 2 != 0)
    return false;
  const std::string& digits = hex->get_ref<const std::string&>();
  const auto nibble = [](char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
  };
  text.clear();
  for (size_t i = 0; i < digits.size(); i += 2)
  {
    const int high = nibble(digits[i]), low = nibble(digits[i + 1]);
    if (high < 0 || low < 0)
      return false;
    text += static_cast<char>(high * 16 + low);
  }
  return true;
}

// Reads one field of `object` into `target`, or says what is wrong with it.
class FieldReader
{
public:
  explicit FieldReader(const json& object) : m_object(object) {}

  bool text(const char* name, std::string& target, bool mayBeEmpty = false)
  {
    const json* field = find(name);
    std::string value;
    if (!field || !textFromJson(*field, value) || (!mayBeEmpty && value.empty()))
      return refuse(name, mayBeEmpty ? "a string" : "a string that is not empty");
    target = std::move(value);
    return true;
  }

  bool flag(const char* name, bool& target)
  {
    const json* field = find(name);
    if (!field || !field->is_boolean())
      return refuse(name, "true or false");
    target = field->get<bool>();
    return true;
  }

  template <typename T>
  bool number(const char* name, T& target, int64_t low, int64_t high)
  {
    const json* field = find(name);
    if (!field || !field->is_number_integer() || field->get<int64_t>() < low || field->get<int64_t>() > high)
      return refuse(name, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
    target = static_cast<T>(field->get<int64_t>());
    return true;
  }

  bool decimal(const char* name, float& target, double low, double high)
  {
    const json* field = find(name);
    if (!field || !field->is_number() || field->get<double>() < low || field->get<double>() > high)
      return refuse(name, "a number from " + std::to_string(low) + " to " + std::to_string(high));
    target = static_cast<float>(field->get<double>());
    return true;
  }

  const std::string& problem() const { return m_problem; }

private:
  const json* find(const char* name) const
  {
    const auto it = m_object.find(name);
    return it == m_object.end() ? nullptr : &*it;
  }

  bool refuse(const char* name, const std::string& expected)
  {
    if (m_problem.empty())
      m_problem = std::string("field '") + name + "': expected " + expected;
    return false;
  }

  const json& m_object;
  std::string m_problem;
};
} // namespace

WorkerRequest WorkerRequest::forModel(const std::string& source, const std::string& output,
                                      const ModelSettings& settings)
{
  WorkerRequest request;
  request.source = source;
  request.output = output;
  request.compilerJobs = settings.compilerJobs == 0 ? 1 : settings.compilerJobs;
  request.incremental = settings.incremental;
  request.strict = settings.strict;
  request.figures = !settings.report && !settings.stats ? Figures::None
                    : settings.reportOverdraw          ? Figures::WithOverdraw
                                                       : Figures::Statistics;
  request.compile = settings.compile;
  if (settings.cache)
  {
    // The worker opens the run's cache itself; the folder is bounded once, by the run.
    const CacheSettings& cache = settings.cache->settings();
    request.cache = Cache{cstdmf::toUtf8(cache.directory), cache.url, cache.timeoutSeconds};
  }
  return request;
}

std::string WorkerRequest::toJson() const
{
  json document = {
    {"version", kVersion},
    {"source", textToJson(source)},
    {"output", textToJson(output)},
    {"compilerJobs", compilerJobs},
    {"incremental", incremental},
    {"strict", strict},
    {"figures", static_cast<int>(figures)},
    {"compile",
     {{"encodeBuffers", compile.encodeBuffers},
      {"optimizeMeshes", compile.optimizeMeshes},
      {"verifyVertices", compile.verifyVertices},
      {"refuseUnpackableNormals", compile.refuseUnpackableNormals}}},
  };
  if (compile.lods.levels > 0)
    document["lods"] = {{"levels", compile.lods.levels},
                        {"ratio", compile.lods.ratio},
                        {"maxError", compile.lods.maxError},
                        {"sloppy", compile.lods.sloppy}};
  if (cache)
    document["cache"] = {
      {"directory", textToJson(cache->directory)}, {"url", textToJson(cache->url)}, {"timeoutSeconds", cache->timeoutSeconds}};
  return document.dump();
}

bool WorkerRequest::fromJson(std::string_view text, WorkerRequest& request, std::string& problem)
{
  const json document = json::parse(text.begin(), text.end(), nullptr, false);
  if (document.is_discarded() || !document.is_object())
  {
    problem = "it is not a JSON object";
    return false;
  }
  FieldReader fields(document);
  int version = 0;
  if (!fields.number("version", version, 0, INT32_MAX))
  {
    problem = fields.problem();
    return false;
  }
  if (version != kVersion)
  {
    problem = "it is of version " + std::to_string(version) + ", and this worker takes version " +
              std::to_string(kVersion);
    return false;
  }
  WorkerRequest parsed;
  int figures = 0;
  bool ok = fields.text("source", parsed.source) && fields.text("output", parsed.output) &&
            fields.number("compilerJobs", parsed.compilerJobs, 1, kMaxJobs) &&
            fields.flag("incremental", parsed.incremental) && fields.flag("strict", parsed.strict) &&
            fields.number("figures", figures, 0, 2);
  if (ok)
  {
    const auto compile = document.find("compile");
    if (compile == document.end() || !compile->is_object())
    {
      problem = "field 'compile': expected an object";
      return false;
    }
    FieldReader switches(*compile);
    ok = switches.flag("encodeBuffers", parsed.compile.encodeBuffers) &&
         switches.flag("optimizeMeshes", parsed.compile.optimizeMeshes) &&
         switches.flag("verifyVertices", parsed.compile.verifyVertices) &&
         switches.flag("refuseUnpackableNormals", parsed.compile.refuseUnpackableNormals);
    if (!ok)
    {
      problem = "in 'compile', " + switches.problem();
      return false;
    }
  }
  if (ok && document.contains("lods"))
  {
    const json& lodsObject = document["lods"];
    LevelOfDetailOptions& lods = parsed.compile.lods;
    FieldReader lodFields(lodsObject);
    if (!lodsObject.is_object() || !lodFields.number("levels", lods.levels, 1, kMaxLevels) ||
        !lodFields.decimal("ratio", lods.ratio, 0.0, 1.0) || !lodFields.decimal("maxError", lods.maxError, 0.0, 1.0) ||
        !lodFields.flag("sloppy", lods.sloppy))
    {
      problem = lodsObject.is_object() ? "in 'lods', " + lodFields.problem() : "field 'lods': expected an object";
      return false;
    }
  }
  if (ok && document.contains("cache"))
  {
    const json& cacheObject = document["cache"];
    if (!cacheObject.is_object())
    {
      problem = "field 'cache': expected an object";
      return false;
    }
    FieldReader cacheFields(cacheObject);
    Cache cache;
    if (!cacheFields.text("directory", cache.directory, true) || !cacheFields.text("url", cache.url, true) ||
        !cacheFields.number("timeoutSeconds", cache.timeoutSeconds, 1, 600))
    {
      problem = "in 'cache', " + cacheFields.problem();
      return false;
    }
    parsed.cache = std::move(cache);
  }
  if (!ok)
  {
    problem = fields.problem();
    return false;
  }
  parsed.figures = static_cast<Figures>(figures);
  request = std::move(parsed);
  return true;
}

} // namespace vertexmill
