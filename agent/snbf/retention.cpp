// SPDX-License-Identifier: GPL-2.0-only
#include "retention.h"

#include <algorithm>
#include <ctime>

namespace snbf {

namespace {

// Numbers that are equal in the same day, week or month and rise with time.
int64_t day_of(const std::tm& local) {
  std::tm noon = local;
  noon.tm_hour = 12;
  noon.tm_min = noon.tm_sec = 0;
  noon.tm_isdst = -1;
  constexpr int64_t kDaySeconds = 86400;
  return (::mktime(&noon) + local.tm_gmtoff) / kDaySeconds;
}
int64_t week_of(const std::tm& local) { return (day_of(local) - (local.tm_wday + 6) % 7 + 7) / 7; }
int64_t month_of(const std::tm& local) { return int64_t{local.tm_year} * 12 + local.tm_mon; }

void keep_one_each(const std::vector<const Point*>& newest_first, uint64_t count,
                   int64_t (*period_of)(const std::tm&), std::set<uint64_t>* kept) {
  std::set<int64_t> seen;
  for (const Point* point : newest_first) {
    std::tm local{};
    const std::time_t created = point->created;
    ::localtime_r(&created, &local);
    const int64_t period = period_of(local);
    if (seen.contains(period)) continue;
    if (seen.size() == count) return;
    seen.insert(period);
    kept->insert(point->id);
  }
}

std::vector<uint64_t> children_of(const std::vector<Point>& points, uint64_t id) {
  std::vector<uint64_t> found;
  for (const Point& point : points) {
    if (point.parent == id) found.push_back(point.id);
  }
  return found;
}

}  // namespace

std::set<uint64_t> kept_points(const Manifest& manifest, const Retention& retention) {
  std::vector<const Point*> newest_first;
  for (const Point& point : manifest.points) newest_first.push_back(&point);
  std::reverse(newest_first.begin(), newest_first.end());
  std::set<uint64_t> kept;
  for (size_t i = 0; i < newest_first.size() && (i == 0 || i < retention.last); ++i) {
    kept.insert(newest_first[i]->id);
  }
  keep_one_each(newest_first, retention.daily, day_of, &kept);
  keep_one_each(newest_first, retention.weekly, week_of, &kept);
  keep_one_each(newest_first, retention.monthly, month_of, &kept);
  return kept;
}

PrunePlan plan_prune(const Manifest& manifest, const std::set<uint64_t>& kept) {
  PrunePlan plan;
  std::vector<Point> points = manifest.points;
  // Newest first: what stands on a leaf that goes may be a leaf then.
  for (size_t i = points.size(); i-- > 0;) {
    if (kept.contains(points[i].id) || !children_of(points, points[i].id).empty()) continue;
    plan.steps.push_back({PruneStep::Kind::Remove, points[i].id, 0});
    points.erase(points.begin() + static_cast<ptrdiff_t>(i));
  }
  // Oldest first: then each file is copied down once.
  for (size_t i = 0; i < points.size();) {
    const Point& point = points[i];
    const auto children = children_of(points, point.id);
    if (kept.contains(point.id)) {
      ++i;
    } else if (children.size() > 1) {
      plan.needed.push_back(point.id);
      ++i;
    } else {
      plan.steps.push_back({PruneStep::Kind::Merge, point.id, children.front()});
      const auto child = std::find_if(points.begin(), points.end(), [&](const Point& other) {
        return other.id == children.front();
      });
      child->parent = point.parent;
      points.erase(points.begin() + static_cast<ptrdiff_t>(i));
    }
  }
  return plan;
}

}  // namespace snbf
