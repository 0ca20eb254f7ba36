#include "base/circles.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <utility>

namespace ProcMgr {
namespace {

// Tarjan's strongly connected components, with a stack of its own in place of recursion: a chain of
// dependencies can be longer than a thread's stack is deep.
class GroupFinder {
 public:
  explicit GroupFinder(const Dependencies& graph) : graph_(graph) {}

  std::vector<std::set<std::string>> Find() {
    for (auto vertex = graph_.begin(); vertex != graph_.end(); ++vertex) {
      if (!marks_.contains(&vertex->first)) {
        Visit(vertex);
        while (!path_.empty()) {
          Step();
        }
      }
    }
    return std::move(groups_);
  }

 private:
  using Vertex = Dependencies::const_iterator;
  struct Mark {
    std::size_t index;
    // The smallest index that is known to be reachable.
    std::size_t low;
    bool isPending;
  };
  struct Frame {
    Vertex vertex;
    std::set<std::string>::const_iterator next;
  };

  Mark& MarkOf(Vertex vertex) { return marks_.at(&vertex->first); }

  void Visit(Vertex vertex) {
    const std::size_t index = marks_.size();
    marks_[&vertex->first] = {index, index, true};
    pending_.push_back(vertex);
    path_.push_back({vertex, vertex->second.begin()});
  }

  void Step() {
    Frame& frame = path_.back();
    if (frame.next == frame.vertex->second.end()) {
      Leave();
      return;
    }
    const Vertex target = graph_.find(*frame.next++);
    if (target == graph_.end()) {
      return;
    }
    const auto known = marks_.find(&target->first);
    if (known == marks_.end()) {
      Visit(target);
    } else if (known->second.isPending) {
      Mark& own = MarkOf(frame.vertex);
      own.low = std::min(own.low, known->second.index);
    }
  }

  void Leave() {
    const Vertex vertex = path_.back().vertex;
    path_.pop_back();
    const Mark own = MarkOf(vertex);
    if (!path_.empty()) {
      Mark& parent = MarkOf(path_.back().vertex);
      parent.low = std::min(parent.low, own.low);
    }
    if (own.low == own.index) {
      TakeGroup(vertex);
    }
  }

  // What is pending from `root` on is one component. One vertex alone is a circle only if it
  // depends on itself.
  void TakeGroup(Vertex root) {
    std::set<std::string> group;
    Vertex member;
    do {
      member = pending_.back();
      pending_.pop_back();
      MarkOf(member).isPending = false;
      group.insert(member->first);
    } while (member != root);
    if (group.size() > 1 || root->second.contains(root->first)) {
      groups_.push_back(std::move(group));
    }
  }

  const Dependencies& graph_;
  std::map<const std::string*, Mark> marks_;
  std::vector<Vertex> pending_;
  std::vector<Frame> path_;
  std::vector<std::set<std::string>> groups_;
};

// A shortest circle through `start` inside of `group`; there is one.
std::vector<std::string> ShortestCircle(const Dependencies& graph,
                                        const std::set<std::string>& group,
                                        const std::string& start) {
  std::map<std::string, std::string> cameFrom;
  std::deque<std::string> queue = {start};
  while (!cameFrom.contains(start)) {
    const std::string vertex = std::move(queue.front());
    queue.pop_front();
    for (const std::string& next : graph.at(vertex)) {
      if (group.contains(next) && cameFrom.emplace(next, vertex).second) {
        queue.push_back(next);
      }
    }
  }
  std::vector<std::string> circle = {start};
  for (std::string at = cameFrom.at(start); at != start; at = cameFrom.at(at)) {
    circle.push_back(at);
  }
  std::reverse(circle.begin() + 1, circle.end());
  return circle;
}

}  // namespace

std::vector<std::set<std::string>> FindCircleGroups(const Dependencies& graph) {
  return GroupFinder(graph).Find();
}

std::vector<std::vector<std::string>> FindCircles(const Dependencies& graph,
                                                  const std::set<std::string>& group,
                                                  std::size_t limit) {
  std::vector<std::vector<std::string>> circles;
  std::set<std::string> covered;
  for (const std::string& vertex : group) {
    if (circles.size() == limit) {
      break;
    }
    if (!covered.contains(vertex)) {
      circles.push_back(ShortestCircle(graph, group, vertex));
      covered.insert(circles.back().begin(), circles.back().end());
    }
  }
  return circles;
}

}  // namespace ProcMgr
