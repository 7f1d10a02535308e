#include "pelorus/ctl/block_requests.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <utility>

#include "skein/errors.h"

namespace pelorus::ctl {
namespace {

struct Point {
  std::string_view name;
  std::int64_t milliseconds = 0;
  std::string_view value;  ///< all that is left of the line
};

Point point_of(std::string_view line) {
  const std::size_t time = line.find(' ') + 1;
  const std::size_t value = time == 0 ? 0 : line.find(' ', time) + 1;
  Point point;
  const char* const end = line.data() + value - 1;
  if (value != 0 && time > 1) {
    const auto read = std::from_chars(line.data() + time, end, point.milliseconds);
    if (read.ec == std::errc() && read.ptr == end) {
      point.name = line.substr(0, time - 1);
      point.value = line.substr(value);
      return point;
    }
  }
  throw skein::Failure(
      fmt::format("'{}' is no point: name, milliseconds and value are needed", line.substr(0, 80)));
}

BlockRequest submit_request(const std::vector<Point>& points, const BlockTarget& target) {
  skein::MsgpackWriter args;
  args.map(6).text("key").text(target.key).text("database").text(target.database);
  args.text("name").text(points.front().name);
  args.text("columns").list(2).text("time").text("value");
  args.text("time_precision").text("m");
  args.text("points").list(points.size());
  for (const Point& point : points) args.list(2).integer(point.milliseconds).text(point.value);
  return {"submit", std::move(args)};
}

std::vector<BlockRequest> submit_requests(std::string_view block, const BlockTarget& target) {
  std::vector<BlockRequest> requests;
  std::vector<Point> points;
  const auto flush = [&] {
    if (!points.empty()) requests.push_back(submit_request(points, target));
    points.clear();
  };
  while (!block.empty()) {
    const std::size_t end = block.find('\n');
    const std::string_view line = block.substr(0, end);
    block.remove_prefix(end == block.npos ? block.size() : end + 1);
    if (line.empty()) continue;
    const Point point = point_of(line);
    if (!points.empty() && points.front().name != point.name) flush();
    points.push_back(point);
  }
  flush();
  return requests;
}

}  // namespace

std::vector<BlockRequest> requests_of(std::string_view block, LineKind kind,
                                      const BlockTarget& target) {
  if (kind == LineKind::SUBMIT) return submit_requests(block, target);
  const bool add = kind == LineKind::ADD;
  skein::MsgpackWriter args;
  args.map((target.key.empty() ? 1U : 2U) + (add ? 1U : 0U));
  if (!target.key.empty()) args.text("key").text(target.key);
  if (add) args.text("database").text(target.database);
  args.text(add ? "data" : "metrics").text(block);
  std::vector<BlockRequest> requests;
  requests.push_back({add ? "add" : "collectd", std::move(args)});
  return requests;
}

}  // namespace pelorus::ctl
