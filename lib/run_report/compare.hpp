#pragma once
// What changed between two runs' reports: the models added, removed, failed since the older run,
// working again, and changed beyond a threshold in their triangles, vertices, bytes or figures.
//
// Models are matched by their source path. When the two runs read their trees from different
// places (another checkout, another machine), each report's common source folder is taken off
// first, so that "a/art/ship.primitives" and "b/art/ship.primitives" are one model.

#include <nlohmann/json.hpp>

namespace run_report
{

// How much a figure must change, relative to the older value, to count: 0.01 is one per cent.
constexpr double kDefaultChangeThreshold = 0.01;

// The changes of `newer` against `older` (both report documents; fields they lack count as
// absent, never as an error):
//   {"threshold": 0.01,
//    "counts": {"added": n, "removed": n, "failedSince": n, "fixed": n, "changed": n, "unchanged": n},
//    "models": [{"source": path in the newer report (the older one's when removed),
//                "change": "failed-since" | "added" | "removed" | "fixed" | "changed",
//                "size": how large the change is (the largest relative change of its figures; 1
//                        for a model added, removed or fixed),
//                "figures": [{"name": "triangles", "before": n, "after": n, "relative": r}, ...],
//                "messages": the newer run's error messages of a model failed since}]}
// Models are listed failed-since first, then by size, largest first, then by path.
[[nodiscard]] nlohmann::json compareReports(const nlohmann::json& newer, const nlohmann::json& older,
                                            double threshold = kDefaultChangeThreshold);

} // namespace run_report
