// The progress bar unify and batch draw on standard error:
// "[#####.........] 12/40 positions", redrawn in place.
#pragma once

#include <cstdint>
#include <string>

namespace luafxs {

class ProgressBar {
public:
  // Draws nothing unless enabled (standard error is a terminal).
  explicit ProgressBar(bool enabled) : m_enabled(enabled) {}
  // Redraws the bar with `done` of `total` and the words after the counts
  // ("positions", "jobs, 1 failed"); nothing while the total is 0.
  void draw(uint64_t done, uint64_t total, const std::string& words);
  // Ends the line of a bar that was drawn, drawn full first when it was short.
  void finish();

private:
  bool m_enabled;
  bool m_drawn = false;
  uint64_t m_done = 0;
  uint64_t m_total = 0;
  std::string m_words;
};

}  // namespace luafxs
